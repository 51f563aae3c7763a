/* A shared object that only tells that it was loaded: its constructor
 * creates the file named by X509AUTH_TEST_MARKER. Planted as
 * ./opensc-pkcs11.so, it shows whether anything loads a module from the
 * working directory. It has a C_GetFunctionList that offers nothing, so
 * that a host naming it on purpose gets as far as loading it. */
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

__attribute__((constructor)) static void LeaveMarker(void) {
  const char* path = getenv("X509AUTH_TEST_MARKER");
  if (path == NULL || *path == '\0') return;
  const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) close(fd);
}

__attribute__((visibility("default"))) unsigned long C_GetFunctionList(void** list) {
  (void)list;
  return 0x05UL; /* CKR_GENERAL_ERROR */
}
