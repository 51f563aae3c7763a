/* A host that loads the x509auth provider and lists what an "x509auth:"
 * store gives: built by the tests to be installed set-user-ID root, where
 * the caller's environment must not steer the provider. Prints one line per
 * certificate and a count. Usage: store_host PROVIDER_DIR */
#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/store.h>
#include <openssl/x509.h>
#include <stdio.h>

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: store_host PROVIDER_DIR\n");
    return 2;
  }
  if (!OSSL_PROVIDER_set_default_search_path(NULL, argv[1]) ||
      OSSL_PROVIDER_load(NULL, "default") == NULL || OSSL_PROVIDER_load(NULL, "x509auth") == NULL) {
    ERR_print_errors_fp(stderr);
    return 1;
  }
  OSSL_STORE_CTX* store = OSSL_STORE_open("x509auth:", NULL, NULL, NULL, NULL);
  if (store == NULL) {
    ERR_print_errors_fp(stderr);
    return 1;
  }
  int count = 0;
  while (!OSSL_STORE_eof(store)) {
    OSSL_STORE_INFO* info = OSSL_STORE_load(store);
    if (info == NULL) break;
    if (OSSL_STORE_INFO_get_type(info) == OSSL_STORE_INFO_CERT) {
      char subject[256];
      X509_NAME_oneline(X509_get_subject_name(OSSL_STORE_INFO_get0_CERT(info)), subject,
                        sizeof subject);
      printf("certificate: %s\n", subject);
      ++count;
    }
    OSSL_STORE_INFO_free(info);
  }
  OSSL_STORE_close(store);
  printf("certificates: %d\n", count);
  return 0;
}
