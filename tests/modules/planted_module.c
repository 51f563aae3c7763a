/* A file someone left in a working directory under the name of a PKCS#11
 * module. Loading it runs its constructor, which leaves a file named
 * "planted-module-was-loaded" in the working directory of the process that
 * loaded it: the tests look for that file and must never find it. */
#include <fcntl.h>
#include <unistd.h>

__attribute__((constructor)) static void LeaveMarker(void) {
  const int fd = open("planted-module-was-loaded", O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd >= 0) close(fd);
}

int C_GetFunctionList(void** list) {
  (void)list;
  return 5; /* CKR_GENERAL_ERROR */
}
