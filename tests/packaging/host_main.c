/* The smallest host: links against the installed library and asks for its
 * API version. Compiled as C99 with warnings as errors. */
#include <stdio.h>
#include <x509_auth.h>

int main(void) {
  printf("x509auth api %d\n", X509_Auth_GetApiVersion());
  return X509_Auth_GetApiVersion() == X509_AUTH_API_VERSION ? 0 : 1;
}
