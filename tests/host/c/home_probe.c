/* A host that lists only the certificates below HOME, for the test that runs
 * it set-user-ID: prints how many it listed and whether the library said it
 * could not read HOME. Usage: home_probe HOME_RELATIVE_DIR */
#include <stdio.h>
#include <string.h>

#include "x509_auth.h"

static int home_unread = 0;

static void OnLog(X509_Auth_LogPriority priority, const char* format, va_list arguments) {
  (void)priority;
  (void)arguments;
  if (strcmp(format, "Unable to read HOME environment variable") == 0) home_unread = 1;
}

static X509_Auth_PinEntryResult* OnPinEntry(const char* title, const char* prompt) {
  (void)title;
  (void)prompt;
  return NULL;
}

static void OnFreePinEntryResult(X509_Auth_PinEntryResult* result) { (void)result; }

static void OnMessage(const char* message, const char* title) {
  (void)message;
  (void)title;
}

int main(int argc, char** argv) {
  const char* home_dirs[1];
  X509_Auth_Settings settings;
  X509_Auth_Callbacks callbacks;
  uint64_t count = 0;
  const X509_Auth_Certificate* certificates = NULL;
  if (argc != 2) return 2;
  home_dirs[0] = argv[1];
  settings.certificate_directories = NULL;
  settings.certificate_directory_count = 0;
  settings.home_certificate_directories = home_dirs;
  settings.home_certificate_directory_count = 1;
  callbacks.log = OnLog;
  callbacks.pin_entry = OnPinEntry;
  callbacks.free_pin_entry_result = OnFreePinEntryResult;
  callbacks.message = OnMessage;
  X509_Auth_Init(&settings, callbacks);
  if (!X509_Auth_LoadClientCertificates(&count, &certificates)) {
    printf("list failed\n");
    X509_Auth_DeInit();
    return 1;
  }
  printf("listed %lu, HOME %s\n", (unsigned long)count, home_unread ? "unread" : "read");
  X509_Auth_Free(certificates);
  X509_Auth_DeInit();
  return 0;
}
