// The PKCS#11 module's entry points, driven by the input: a sequence of
// C_* calls whose handles, lengths, templates, mechanisms, parameters and
// null pointers all come from the bytes. Each input starts with
// C_Initialize and ends with C_Finalize, so nothing carries over. Any
// return value is fine; a crash, a leak or a sanitizer report is not.
// Steps may start a second thread that lists and signs on its own session
// meanwhile, and fork (at most twice, never in a child): the child must find
// the module uninitialised, initialise it within 10 s and run the rest of
// the input; its hang, crash or sanitizer report is the parent's finding.
#include <fuzzer/FuzzedDataProvider.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <thread>
#include <vector>

#include "TestPki.h"
#include "p11-kit/pkcs11.h"

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list);

namespace {

using x509auth_test::Bytes;

// A base directory with an RSA certificate (plain key) and an EC one
// (key encrypted with "pin"), made once per process; the module finds it
// through its environment settings.
void MakeMaterial() {
  static x509auth_test::TempDir temp;
  const auto base = temp.path() / "base";
  std::string cas;
  int index = 0;
  for (const auto kind : {x509auth_test::KeyKind::k_rsa, x509auth_test::KeyKind::k_ec}) {
    x509auth_test::Chain chain = x509auth_test::MakeChain(kind, "Fuzz " + std::to_string(index));
    const std::string name = "c" + std::to_string(index++) + ".pem";
    x509auth_test::WriteFile(base / "certs" / name, x509auth_test::CertToPem(chain.leaf.get()));
    x509auth_test::WriteFile(
        base / "keys" / (name + ".key"),
        x509auth_test::KeyToPem(chain.leaf_key.get(),
                                kind == x509auth_test::KeyKind::k_ec ? "pin" : nullptr));
    cas += x509auth_test::CertToPem(chain.root.get()) +
           x509auth_test::CertToPem(chain.intermediate.get());
  }
  x509auth_test::WriteFile(temp.path() / "cas.pem", cas);
  setenv("X509AUTH_DIRS", base.c_str(), 1);
  setenv("X509AUTH_HOME_DIRS", "", 1);
  setenv("X509AUTH_CA_FILES", (temp.path() / "cas.pem").c_str(), 1);
  setenv("X509AUTH_MODULE", "", 1);
  setenv("X509AUTH_LOG", "none", 1);
  setenv("X509AUTH_PKCS11_CONF", (temp.path() / "none.conf").c_str(), 1);
}

const CK_MECHANISM_TYPE k_mechanisms[] = {CKM_RSA_PKCS,
                                          CKM_SHA1_RSA_PKCS,
                                          CKM_SHA256_RSA_PKCS,
                                          CKM_SHA384_RSA_PKCS,
                                          CKM_SHA512_RSA_PKCS,
                                          CKM_RSA_PKCS_PSS,
                                          CKM_SHA1_RSA_PKCS_PSS,
                                          CKM_SHA256_RSA_PKCS_PSS,
                                          CKM_SHA384_RSA_PKCS_PSS,
                                          CKM_SHA512_RSA_PKCS_PSS,
                                          CKM_RSA_PKCS_OAEP,
                                          CKM_ECDSA,
                                          CKM_ECDSA_SHA1,
                                          CKM_ECDSA_SHA256,
                                          CKM_ECDSA_SHA384,
                                          CKM_ECDSA_SHA512,
                                          CKM_SHA256,
                                          CKM_RSA_X_509};
const CK_ATTRIBUTE_TYPE k_attributes[] = {CKA_CLASS,     CKA_ID,
                                          CKA_LABEL,     CKA_VALUE,
                                          CKA_KEY_TYPE,  CKA_PRIVATE,
                                          CKA_SIGN,      CKA_DECRYPT,
                                          CKA_MODULUS,   CKA_EC_POINT,
                                          CKA_EC_PARAMS, CKA_PRIVATE_EXPONENT,
                                          CKA_SUBJECT,   CKA_CERTIFICATE_CATEGORY};

class Driver {
 public:
  Driver(CK_FUNCTION_LIST* f, FuzzedDataProvider& in) : f_(f), in_(in) {}

  void Run() {
    f_->C_Initialize(nullptr);
    RunSteps();
    if (helper_.joinable()) {
      stop_ = true;
      helper_.join();
    }
    f_->C_Finalize(nullptr);
  }

 private:
  static constexpr int k_steps = 64;
  static constexpr int k_forks = 2;

  void RunSteps() {
    for (; steps_ < k_steps && in_.remaining_bytes() > 0; ++steps_) Step();
  }

  // Calls beside the input's, on a session of its own: a program's other
  // thread. It touches only the module, never the input.
  void StartHelper() {
    if (in_child_ || helper_.joinable()) return;
    std::atomic<bool> started{false};
    helper_ = std::thread([f = f_, &stop = stop_, &started] {
      started = true;
      while (!stop) {
        CK_SESSION_HANDLE session = 0;
        if (f->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK) {
          std::this_thread::yield();
          continue;
        }
        CK_OBJECT_HANDLE found[4];
        CK_ULONG count = 0;
        f->C_FindObjectsInit(session, nullptr, 0);
        f->C_FindObjects(session, found, 4, &count);
        f->C_FindObjectsFinal(session);
        for (CK_ULONG i = 0; i < count && i < 4; ++i) {
          CK_MECHANISM mechanism{i % 2 == 0 ? CKM_ECDSA_SHA256 : CKM_SHA256_RSA_PKCS, nullptr, 0};
          unsigned char data[] = "data";
          unsigned char signature[512];
          CK_ULONG length = sizeof(signature);
          if (f->C_SignInit(session, &mechanism, found[i]) == CKR_OK)
            f->C_Sign(session, data, 4, signature, &length);
        }
        f->C_CloseSession(session);
      }
    });
    // A thread still starting may hold the sanitizer's allocator lock, which
    // a child forked then would inherit locked (clang 14's runtime does not
    // guard fork); the module's own calls are what the forks are about.
    while (!started) std::this_thread::yield();
  }

  // The child runs the rest of the input on its own module and ends with
  // _exit: the helper thread is not there, and nothing of the parent's may
  // be torn down twice.
  void Fork() {
    if (in_child_ || forks_ >= k_forks) return;
    ++forks_;
    const pid_t child = fork();
    if (child < 0) return;
    if (child == 0) {
      in_child_ = true;
      signal(SIGALRM, SIG_DFL);  // libFuzzer's timeout handler is the parent's
      alarm(10);
      CK_INFO info;
      if (f_->C_GetInfo(&info) != CKR_CRYPTOKI_NOT_INITIALIZED) __builtin_trap();
      if (f_->C_Initialize(nullptr) != CKR_OK) __builtin_trap();
      sessions_.clear();
      objects_.clear();
      ++steps_;
      RunSteps();
      f_->C_Finalize(nullptr);
      _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
      if (errno != EINTR) __builtin_trap();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::fprintf(stderr, "fuzz_pkcs11: the forked child ended with wait status %d\n", status);
      __builtin_trap();
    }
  }

  CK_SESSION_HANDLE Session() {
    if (!sessions_.empty() && in_.ConsumeBool())
      return sessions_[in_.ConsumeIntegralInRange<std::size_t>(0, sessions_.size() - 1)];
    return in_.ConsumeIntegralInRange<CK_SESSION_HANDLE>(0, 8);
  }
  CK_OBJECT_HANDLE Object() {
    if (!objects_.empty() && in_.ConsumeBool())
      return objects_[in_.ConsumeIntegralInRange<std::size_t>(0, objects_.size() - 1)];
    return in_.ConsumeIntegralInRange<CK_OBJECT_HANDLE>(0, 32);
  }
  // A length the buffer really has, or (when |pointer| is off) a null
  // pointer with whatever length.
  CK_ULONG Length(std::size_t limit) { return in_.ConsumeIntegralInRange<CK_ULONG>(0, limit); }

  void Template(std::vector<CK_ATTRIBUTE>& templ, std::vector<Bytes>& values) {
    const std::size_t count = in_.ConsumeIntegralInRange<std::size_t>(0, 3);
    values.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
      values[i] = in_.ConsumeBytes<unsigned char>(in_.ConsumeIntegralInRange<std::size_t>(0, 300));
      CK_ATTRIBUTE attribute{};
      attribute.type =
          in_.ConsumeBool() ? in_.PickValueInArray(k_attributes) : in_.ConsumeIntegral<CK_ULONG>();
      attribute.pValue = in_.ConsumeBool() ? values[i].data() : nullptr;
      attribute.ulValueLen =
          attribute.pValue != nullptr || in_.ConsumeBool() ? values[i].size() : 0;
      templ.push_back(attribute);
    }
  }

  void Mechanism(CK_MECHANISM& mechanism, Bytes& parameter) {
    mechanism.mechanism =
        in_.ConsumeBool() ? in_.PickValueInArray(k_mechanisms) : in_.ConsumeIntegral<CK_ULONG>();
    switch (in_.ConsumeIntegralInRange<int>(0, 3)) {
      case 0:
        mechanism.pParameter = nullptr;
        mechanism.ulParameterLen = 0;
        return;
      case 1: {
        CK_RSA_PKCS_PSS_PARAMS pss{in_.ConsumeIntegralInRange<CK_ULONG>(0x220, 0x270),
                                   in_.ConsumeIntegralInRange<CK_ULONG>(0, 5),
                                   in_.ConsumeIntegralInRange<CK_ULONG>(0, 300)};
        parameter.assign(reinterpret_cast<unsigned char*>(&pss),
                         reinterpret_cast<unsigned char*>(&pss) + sizeof(pss));
        break;
      }
      case 2: {
        CK_RSA_PKCS_OAEP_PARAMS oaep{in_.ConsumeBool() ? CKM_SHA_1 : CKM_SHA256,
                                     in_.ConsumeIntegralInRange<CK_ULONG>(0, 5),
                                     in_.ConsumeIntegralInRange<CK_ULONG>(0, 2), nullptr, 0};
        parameter.assign(reinterpret_cast<unsigned char*>(&oaep),
                         reinterpret_cast<unsigned char*>(&oaep) + sizeof(oaep));
        break;
      }
      default:
        parameter = in_.ConsumeBytes<unsigned char>(in_.ConsumeIntegralInRange<std::size_t>(0, 48));
        break;
    }
    mechanism.pParameter = parameter.data();
    mechanism.ulParameterLen = parameter.size();
  }

  // Output buffers: null, too small, or big enough.
  void Output(Bytes& buffer, CK_ULONG& length, unsigned char*& pointer) {
    buffer.assign(in_.ConsumeIntegralInRange<std::size_t>(0, 600), 0);
    length = buffer.size();
    pointer = in_.ConsumeBool() ? buffer.data() : nullptr;
  }

  void Step() {
    switch (in_.ConsumeIntegralInRange<int>(0, 24)) {
      case 0: {
        CK_INFO info;
        f_->C_GetInfo(in_.ConsumeBool() ? &info : nullptr);
        break;
      }
      case 1: {
        CK_SLOT_ID slots[2];
        CK_ULONG count = Length(2);
        f_->C_GetSlotList(in_.ConsumeBool(), in_.ConsumeBool() ? slots : nullptr,
                          in_.ConsumeBool() ? &count : nullptr);
        break;
      }
      case 2: {
        CK_SLOT_INFO info;
        f_->C_GetSlotInfo(in_.ConsumeIntegralInRange<CK_SLOT_ID>(0, 2),
                          in_.ConsumeBool() ? &info : nullptr);
        break;
      }
      case 3: {
        CK_TOKEN_INFO info;
        f_->C_GetTokenInfo(in_.ConsumeIntegralInRange<CK_SLOT_ID>(0, 2),
                           in_.ConsumeBool() ? &info : nullptr);
        break;
      }
      case 4: {
        CK_MECHANISM_TYPE list[32];
        CK_ULONG count = Length(32);
        f_->C_GetMechanismList(1, in_.ConsumeBool() ? list : nullptr,
                               in_.ConsumeBool() ? &count : nullptr);
        break;
      }
      case 5: {
        CK_MECHANISM_INFO info;
        f_->C_GetMechanismInfo(1, in_.PickValueInArray(k_mechanisms),
                               in_.ConsumeBool() ? &info : nullptr);
        break;
      }
      case 6: {
        CK_SESSION_HANDLE session = 0;
        if (f_->C_OpenSession(in_.ConsumeIntegralInRange<CK_SLOT_ID>(0, 2),
                              in_.ConsumeIntegralInRange<CK_FLAGS>(0, 7), nullptr, nullptr,
                              in_.ConsumeBool() ? &session : nullptr) == CKR_OK)
          sessions_.push_back(session);
        break;
      }
      case 7: f_->C_CloseSession(Session()); break;
      case 8: {
        Bytes pin =
            in_.ConsumeBool()
                ? Bytes{'p', 'i', 'n'}
                : in_.ConsumeBytes<unsigned char>(in_.ConsumeIntegralInRange<std::size_t>(0, 40));
        f_->C_Login(Session(), in_.ConsumeIntegralInRange<CK_USER_TYPE>(0, 3),
                    in_.ConsumeBool() ? pin.data() : nullptr, pin.size());
        break;
      }
      case 9: f_->C_Logout(Session()); break;
      case 10: {
        std::vector<CK_ATTRIBUTE> templ;
        std::vector<Bytes> values;
        Template(templ, values);
        f_->C_FindObjectsInit(Session(), templ.empty() ? nullptr : templ.data(), templ.size());
        break;
      }
      case 11: {
        CK_OBJECT_HANDLE found[8];
        CK_ULONG count = 0;
        const CK_ULONG max = Length(8);
        if (f_->C_FindObjects(Session(), in_.ConsumeBool() ? found : nullptr, max,
                              in_.ConsumeBool() ? &count : nullptr) == CKR_OK)
          objects_.insert(objects_.end(), found, found + std::min<CK_ULONG>(count, max));
        break;
      }
      case 12: f_->C_FindObjectsFinal(Session()); break;
      case 13: {
        std::vector<CK_ATTRIBUTE> templ;
        std::vector<Bytes> values;
        Template(templ, values);
        f_->C_GetAttributeValue(Session(), Object(), templ.empty() ? nullptr : templ.data(),
                                templ.size());
        break;
      }
      case 14:
      case 18: {
        CK_MECHANISM mechanism{};
        Bytes parameter;
        const bool sign = in_.ConsumeBool();
        Mechanism(mechanism, parameter);
        CK_MECHANISM* pointer = in_.ConsumeBool() ? &mechanism : nullptr;
        if (sign)
          f_->C_SignInit(Session(), pointer, Object());
        else
          f_->C_DecryptInit(Session(), pointer, Object());
        break;
      }
      case 15:
      case 19: {
        Bytes data =
            in_.ConsumeBytes<unsigned char>(in_.ConsumeIntegralInRange<std::size_t>(0, 600));
        Bytes out;
        CK_ULONG length = 0;
        unsigned char* pointer = nullptr;
        Output(out, length, pointer);
        const bool sign = in_.ConsumeBool();
        unsigned char* input = in_.ConsumeBool() ? data.data() : nullptr;
        CK_ULONG* length_pointer = in_.ConsumeBool() ? &length : nullptr;
        if (sign)
          f_->C_Sign(Session(), input, data.size(), pointer, length_pointer);
        else
          f_->C_Decrypt(Session(), input, data.size(), pointer, length_pointer);
        break;
      }
      case 16: {
        Bytes data =
            in_.ConsumeBytes<unsigned char>(in_.ConsumeIntegralInRange<std::size_t>(0, 200));
        f_->C_SignUpdate(Session(), in_.ConsumeBool() ? data.data() : nullptr, data.size());
        break;
      }
      case 17: {
        Bytes out;
        CK_ULONG length = 0;
        unsigned char* pointer = nullptr;
        Output(out, length, pointer);
        f_->C_SignFinal(Session(), pointer, in_.ConsumeBool() ? &length : nullptr);
        break;
      }
      case 20: {
        CK_SESSION_INFO info;
        f_->C_GetSessionInfo(Session(), in_.ConsumeBool() ? &info : nullptr);
        break;
      }
      case 21:
        f_->C_CloseAllSessions(in_.ConsumeIntegralInRange<CK_SLOT_ID>(0, 2));
        sessions_.clear();
        break;
      case 22: StartHelper(); break;
      case 23: Fork(); break;
      default:
        f_->C_Finalize(nullptr);
        f_->C_Initialize(nullptr);
        sessions_.clear();
        objects_.clear();
        break;
    }
  }

  CK_FUNCTION_LIST* f_;
  FuzzedDataProvider& in_;
  std::vector<CK_SESSION_HANDLE> sessions_;
  std::vector<CK_OBJECT_HANDLE> objects_;
  int steps_ = 0;
  int forks_ = 0;
  bool in_child_ = false;
  std::thread helper_;
  std::atomic<bool> stop_{false};
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  MakeMaterial();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CK_FUNCTION_LIST* functions = nullptr;
  if (C_GetFunctionList(&functions) != CKR_OK) __builtin_trap();
  FuzzedDataProvider input(data, size);
  Driver(functions, input).Run();
  return 0;
}
