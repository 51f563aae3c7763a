/* A long-lived PKCS#11 program for the card rig, as a browser is: it loads
 * one or more modules into one process and, every half second, lists each
 * module's slots with a token, counts their certificates and signs with the
 * first private key, keeping its session (and login) while they last.
 *
 *   rig_pkcs11_loop <rounds> <tag>=<module> [<tag>=<module>...]
 *
 * Lines: "round N TAG slots=S certs=C sign=ok|sign=rv:0xHEX|sign=none".
 * The PIN comes from $RIG_PIN; stops early once $RIG_STOP_FILE exists. With
 * $RIG_LOGIN_GATE it prints "login pending" before each login and waits (30 s
 * at most) until that file exists: a user still typing the PIN. */
#define _POSIX_C_SOURCE 200809L
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "p11-kit/pkcs11.h"

enum { k_max_modules = 4 };

struct Module {
  const char* tag;
  CK_FUNCTION_LIST_PTR functions;
  CK_SESSION_HANDLE session;
  CK_SLOT_ID slot;
  int has_session;
  int logins;
};

static int Load(struct Module* module, const char* path) {
  void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (handle == NULL) return 0;
  CK_C_GetFunctionList get = (CK_C_GetFunctionList)dlsym(handle, "C_GetFunctionList");
  if (get == NULL || get(&module->functions) != CKR_OK) return 0;
  CK_C_INITIALIZE_ARGS args;
  memset(&args, 0, sizeof args);
  args.flags = CKF_OS_LOCKING_OK;
  return module->functions->C_Initialize(&args) == CKR_OK;
}

static CK_ULONG CountCertificates(struct Module* module) {
  CK_OBJECT_CLASS klass = CKO_CERTIFICATE;
  CK_ATTRIBUTE template[] = {{CKA_CLASS, &klass, sizeof klass}};
  CK_OBJECT_HANDLE objects[16];
  CK_ULONG found = 0;
  if (module->functions->C_FindObjectsInit(module->session, template, 1) != CKR_OK) return 0;
  module->functions->C_FindObjects(module->session, objects, 16, &found);
  module->functions->C_FindObjectsFinal(module->session);
  return found;
}

static void WaitForLoginGate(void) {
  const char* gate = getenv("RIG_LOGIN_GATE");
  if (gate == NULL) return;
  printf("login pending\n");
  fflush(stdout);
  for (int i = 0; i < 300 && access(gate, F_OK) != 0; ++i) {
    const struct timespec pause = {0, 100 * 1000 * 1000};
    nanosleep(&pause, NULL);
  }
}

static void Sign(struct Module* module, int round, char* verdict, size_t size) {
  CK_OBJECT_CLASS klass = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE template[] = {{CKA_CLASS, &klass, sizeof klass}};
  CK_OBJECT_HANDLE key = 0;
  CK_ULONG found = 0;
  CK_RV rv = CKR_OK;
  const char* pin = getenv("RIG_PIN");
  CK_SESSION_INFO info;
  if (module->functions->C_GetSessionInfo(module->session, &info) == CKR_OK &&
      info.state != CKS_RO_USER_FUNCTIONS && info.state != CKS_RW_USER_FUNCTIONS && pin != NULL) {
    WaitForLoginGate();
    rv = module->functions->C_Login(module->session, CKU_USER, (CK_UTF8CHAR_PTR)pin,
                                    (CK_ULONG)strlen(pin));
    if (rv == CKR_OK) ++module->logins;
    if (rv != CKR_OK && rv != CKR_USER_ALREADY_LOGGED_IN) {
      snprintf(verdict, size, "sign=login-rv:0x%lx", (unsigned long)rv);
      return;
    }
  }
  if (module->functions->C_FindObjectsInit(module->session, template, 1) == CKR_OK) {
    module->functions->C_FindObjects(module->session, &key, 1, &found);
    module->functions->C_FindObjectsFinal(module->session);
  }
  if (found == 0) {
    snprintf(verdict, size, "sign=none");
    return;
  }
  CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, NULL, 0};
  unsigned char data[16];
  unsigned char signature[512];
  CK_ULONG length = sizeof signature;
  memset(data, round & 0xff, sizeof data);
  rv = module->functions->C_SignInit(module->session, &mechanism, key);
  if (rv == CKR_OK)
    rv = module->functions->C_Sign(module->session, data, sizeof data, signature, &length);
  if (rv == CKR_OK)
    snprintf(verdict, size, "sign=ok");
  else
    snprintf(verdict, size, "sign=rv:0x%lx", (unsigned long)rv);
}

static void Round(struct Module* module, int round) {
  CK_SLOT_ID slots[8];
  CK_ULONG count = 8;
  CK_RV rv = module->functions->C_GetSlotList(CK_TRUE, slots, &count);
  if (rv != CKR_OK) {
    printf("round %d %s slots=rv:0x%lx\n", round, module->tag, (unsigned long)rv);
    return;
  }
  if (module->has_session) {
    CK_SESSION_INFO info;
    if (module->functions->C_GetSessionInfo(module->session, &info) != CKR_OK) {
      module->functions->C_CloseSession(module->session);
      module->has_session = 0;
    }
  }
  if (!module->has_session && count > 0) {
    module->slot = slots[0];
    if (module->functions->C_OpenSession(slots[0], CKF_SERIAL_SESSION, NULL, NULL,
                                         &module->session) == CKR_OK)
      module->has_session = 1;
  }
  char verdict[64] = "sign=none";
  CK_ULONG certificates = 0;
  if (module->has_session) {
    certificates = CountCertificates(module);
    if (certificates > 0) Sign(module, round, verdict, sizeof verdict);
  }
  printf("round %d %s slots=%lu certs=%lu %s logins=%d\n", round, module->tag, (unsigned long)count,
         (unsigned long)certificates, verdict, module->logins);
}

int main(int argc, char** argv) {
  if (argc < 3 || argc - 2 > k_max_modules) {
    fprintf(stderr, "usage: %s <rounds> <tag>=<module>...\n", argv[0]);
    return 2;
  }
  struct Module modules[k_max_modules];
  memset(modules, 0, sizeof modules);
  const int module_count = argc - 2;
  for (int i = 0; i < module_count; ++i) {
    char* equals = strchr(argv[i + 2], '=');
    if (equals == NULL) return 2;
    *equals = '\0';
    modules[i].tag = argv[i + 2];
    if (!Load(&modules[i], equals + 1)) {
      fprintf(stderr, "rig_pkcs11_loop: cannot load %s\n", equals + 1);
      return 1;
    }
  }
  const char* stop_file = getenv("RIG_STOP_FILE");
  const int rounds = atoi(argv[1]);
  for (int round = 1; round <= rounds; ++round) {
    if (stop_file != NULL && access(stop_file, F_OK) == 0) break;
    for (int i = 0; i < module_count; ++i) Round(&modules[i], round);
    fflush(stdout);
    const struct timespec pause = {0, 500 * 1000 * 1000};
    nanosleep(&pause, NULL);
  }
  for (int i = 0; i < module_count; ++i) {
    if (modules[i].has_session) modules[i].functions->C_CloseSession(modules[i].session);
    modules[i].functions->C_Finalize(NULL);
  }
  printf("done\n");
  return 0;
}
