// Peak memory of one listing of N certificates, in a process of its own:
// prints N, the peak resident set size before the listing (material made, the
// library initialised) and after it, in KiB, as one JSON object.
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "BenchMaterial.h"
#include "x509_auth.h"

namespace {

long PeakKib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s N\n", argv[0]);
    return 2;
  }
  const int n = std::atoi(argv[1]);
  x509auth_bench::EnterWorkingDirectory();
  x509auth_bench::Material material(n);
  const std::string base = material.base.string();
  const char* dirs[] = {base.c_str()};
  const X509_Auth_Settings settings{dirs, 1, nullptr, 0};
  X509_Auth_Init(&settings, X509_Auth_Callbacks{});
  X509_Auth_AddAdditionalCertificateAuthorityToStore(material.ca_der.data(),
                                                     material.ca_der.size());
  const long before = PeakKib();
  uint64_t count = 0;
  const X509_Auth_Certificate* certificates = nullptr;
  const bool listed = X509_Auth_LoadClientCertificates(&count, &certificates);
  const long after = PeakKib();
  X509_Auth_Free(certificates);
  X509_Auth_DeInit();
  std::printf("{\"n\": %d, \"listed\": %llu, \"peak_before_kib\": %ld, \"peak_after_kib\": %ld}\n",
              n, static_cast<unsigned long long>(listed ? count : 0), before, after);
  return listed && count == static_cast<uint64_t>(n) ? 0 : 1;
}
