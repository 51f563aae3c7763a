/* A PKCS#11 module whose C_Initialize always fails (CKR_GENERAL_ERROR) and
 * whose other entries report CKR_FUNCTION_NOT_SUPPORTED. The function list
 * is laid out as PKCS#11 2.x defines it: a two-byte version, then 68 entry
 * points, C_Initialize first. */
#include <stddef.h>

typedef unsigned long ck_rv;

static ck_rv Initialize(void* args) {
  (void)args;
  return 0x05UL; /* CKR_GENERAL_ERROR */
}
static ck_rv NotSupported(void) { return 0x54UL; /* CKR_FUNCTION_NOT_SUPPORTED */ }

struct function_list {
  unsigned char major, minor;
  void* entries[68];
};

static struct function_list functions;

__attribute__((visibility("default"))) ck_rv C_GetFunctionList(struct function_list** list) {
  if (list == NULL) return 0x07UL; /* CKR_ARGUMENTS_BAD */
  functions.major = 2;
  functions.minor = 20;
  functions.entries[0] = (void*)Initialize;
  for (size_t i = 1; i < 68; ++i) functions.entries[i] = (void*)NotSupported;
  *list = &functions;
  return 0;
}
