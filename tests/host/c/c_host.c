/* A host written in C: initialises the library with its callbacks, lists the
 * client certificates of one base directory, fetches each one's CA chain,
 * frees everything and shuts down; as many rounds as asked. Prints what it
 * saw so a test can check it. Usage: c_host BASE_DIR [ROUNDS] */
#include <stdio.h>
#include <stdlib.h>

#include "x509_auth.h"

static int log_lines = 0;

static void OnLog(X509_Auth_LogPriority priority, const char* format, va_list arguments) {
  (void)priority;
  (void)format;
  (void)arguments;
  ++log_lines;
}

static X509_Auth_PinEntryResult* OnPinEntry(const char* title, const char* prompt) {
  (void)title;
  (void)prompt;
  return NULL; /* this host never has a PIN to give */
}

static void OnFreePinEntryResult(X509_Auth_PinEntryResult* result) { free(result); }

static void OnMessage(const char* message, const char* title) {
  printf("message: %s (%s)\n", message, title);
}

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const int rounds = argc > 2 ? atoi(argv[2]) : 1;
  const char* dirs[1];
  X509_Auth_Settings settings;
  X509_Auth_Callbacks callbacks;
  int round;
  dirs[0] = argv[1];
  settings.certificate_directories = dirs;
  settings.certificate_directory_count = 1;
  settings.home_certificate_directories = NULL;
  settings.home_certificate_directory_count = 0;
  callbacks.log = OnLog;
  callbacks.pin_entry = OnPinEntry;
  callbacks.free_pin_entry_result = OnFreePinEntryResult;
  callbacks.message = OnMessage;

  for (round = 0; round < rounds; ++round) {
    uint64_t count = 0;
    uint64_t i;
    const X509_Auth_Certificate* certificates = NULL;
    X509_Auth_Init(&settings, callbacks);
    if (!X509_Auth_LoadClientCertificates(&count, &certificates)) {
      printf("list failed\n");
      X509_Auth_DeInit();
      return 1;
    }
    for (i = 0; i < count; ++i) {
      uint64_t chain_count = 0;
      X509_Auth_ASN_1* chain = NULL;
      if (round == 0)
        printf("cert %s type %u group %u chain %lu\n", certificates[i].name,
               (unsigned)certificates[i].cert_type, (unsigned)certificates[i].key_algorithm_group,
               (unsigned long)certificates[i].ca_chain_count);
      if (X509_Auth_GetChainedCAsForCertificate(&certificates[i], &chain_count, &chain) != 0)
        return 1;
      X509_Auth_Free(chain);
    }
    X509_Auth_Free(certificates);
    X509_Auth_DeInit();
  }
  printf("api %d, logged %s\n", X509_Auth_GetApiVersion(), log_lines > 0 ? "yes" : "no");
  return 0;
}
