/* A long-lived host over x509_auth.h for the card rig: every half second it
 * lists the certificates and signs with each token certificate, printing one
 * line per step, while the test inserts and pulls the card.
 *
 *   rig_host <pkcs11-module> <watch 0|1> <rounds> <ca-file>...
 *
 * The PIN comes from $RIG_PIN; each prompt is counted ("pin-prompt N"). The
 * host stops after <rounds> rounds, or earlier once $RIG_STOP_FILE exists.
 * With $RIG_PIN_GATE each prompt waits (30 s at most) until that file exists
 * before it answers: a user still typing. With $RIG_OPEN_KEY the first token
 * certificate's key is opened once (X509_Auth_OpenKey) and every round signs
 * with it, listed or not ("open-key sign ok"), as a host holding it open. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "x509_auth.h"

static int pin_prompts = 0;
static X509_Auth_PinEntryResult pin_result;

static void Log(X509_Auth_LogPriority priority, const char* format, va_list arguments) {
  if (priority < X509_Auth_LogPriority_Error) return;
  fputs("log: ", stdout);
  vfprintf(stdout, format, arguments);
  fputc('\n', stdout);
  fflush(stdout);
}

static X509_Auth_PinEntryResult* PinEntry(const char* title, const char* prompt) {
  (void)title;
  printf("pin-prompt %d: %s\n", ++pin_prompts, prompt);
  fflush(stdout);
  const char* gate = getenv("RIG_PIN_GATE");
  for (int i = 0; gate != NULL && i < 300 && access(gate, F_OK) != 0; ++i) {
    const struct timespec pause = {0, 100 * 1000 * 1000};
    nanosleep(&pause, NULL);
  }
  const char* pin = getenv("RIG_PIN");
  pin_result.value = pin ? pin : "";
  pin_result.status = pin ? 0 : 1;
  return &pin_result;
}

static void FreePinEntry(X509_Auth_PinEntryResult* result) { (void)result; }

static void Message(const char* message, const char* title) {
  printf("message: %s | %s\n", title ? title : "", message ? message : "");
  fflush(stdout);
}

static int AddCa(const char* path) {
  static unsigned char buffer[1 << 16];
  FILE* file = fopen(path, "rb");
  if (file == NULL) return 0;
  const size_t length = fread(buffer, 1, sizeof buffer, file);
  fclose(file);
  return X509_Auth_AddAdditionalCertificateAuthorityToStore(buffer, length);
}

static X509_Auth_KeyHandle open_key = 0;

static void SignWithOpenKey(int round, const uint8_t* thumbprint) {
  if (open_key == 0 && thumbprint != NULL) {
    const X509_Auth_Result opened = X509_Auth_OpenKey(thumbprint, &open_key);
    printf("round %d open %s code=%d\n", round, opened.code == 0 ? "ok" : "failed",
           (int)opened.code);
  }
  if (open_key == 0) return;
  unsigned char hash[32];
  memset(hash, round & 0xff, sizeof hash);
  const uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa};
  const X509_Auth_Signature* signature = NULL;
  const X509_Auth_Result result = X509_Auth_OpenKeySignHash(
      open_key, 1, algorithms, X509_Auth_HashType_Sha256, hash, &signature);
  if (result.code == X509_Auth_ResultCode_Success) {
    printf("round %d open-key sign ok (%llu bytes)\n", round,
           (unsigned long long)signature->length);
    X509_Auth_Free(signature);
  } else {
    printf("round %d open-key sign failed code=%d\n", round, (int)result.code);
  }
  fflush(stdout);
}

static void Round(int round) {
  uint64_t count = 0;
  const X509_Auth_Certificate* records = NULL;
  if (!X509_Auth_LoadClientCertificates(&count, &records)) {
    printf("round %d list failed\n", round);
    fflush(stdout);
    return;
  }
  printf("round %d count=%llu\n", round, (unsigned long long)count);
  fflush(stdout);
  if (getenv("RIG_OPEN_KEY") != NULL) {
    const uint8_t* thumbprint = NULL;
    for (uint64_t i = 0; i < count && thumbprint == NULL; ++i)
      if (records[i].cert_type == X509_Auth_CertificateType_SmartCard)
        thumbprint = records[i].thumbprint;
    SignWithOpenKey(round, thumbprint);
    X509_Auth_Free(records);
    return;
  }
  for (uint64_t i = 0; i < count; ++i) {
    if (records[i].cert_type != X509_Auth_CertificateType_SmartCard) continue;
    unsigned char hash[32];
    memset(hash, round & 0xff, sizeof hash);
    const uint32_t algorithms[] = {X509_Auth_Algorithm_Rsa};
    const X509_Auth_Signature* signature = NULL;
    const X509_Auth_Result result = X509_Auth_SignHash(records[i].thumbprint, 1, algorithms,
                                                       X509_Auth_HashType_Sha256, hash, &signature);
    if (result.code == X509_Auth_ResultCode_Success) {
      printf("round %d sign ok %s (%llu bytes)\n", round, records[i].name,
             (unsigned long long)signature->length);
      X509_Auth_Free(signature);
    } else {
      printf("round %d sign failed code=%d %s\n", round, (int)result.code, records[i].name);
    }
    fflush(stdout);
  }
  X509_Auth_Free(records);
}

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: %s <pkcs11-module> <watch 0|1> <rounds> <ca-file>...\n", argv[0]);
    return 2;
  }
  if (X509_Auth_SetPkcs11Module(argv[1]) != 0) return 3;
  if (atoi(argv[2]) != 0 && X509_Auth_SetTokenWatch(1) != 0) return 3;
  const X509_Auth_Settings settings = {NULL, 0, NULL, 0};
  const X509_Auth_Callbacks callbacks = {Log, PinEntry, FreePinEntry, Message};
  X509_Auth_Init(&settings, callbacks);
  for (int i = 4; i < argc; ++i)
    if (!AddCa(argv[i])) fprintf(stderr, "rig_host: CA %s not added\n", argv[i]);
  const char* stop_file = getenv("RIG_STOP_FILE");
  const int rounds = atoi(argv[3]);
  for (int round = 1; round <= rounds; ++round) {
    if (stop_file != NULL && access(stop_file, F_OK) == 0) break;
    Round(round);
    const struct timespec pause = {0, 500 * 1000 * 1000};
    nanosleep(&pause, NULL);
  }
  if (open_key != 0) X509_Auth_CloseKey(open_key);
  X509_Auth_DeInit();
  printf("done, %d PIN prompts\n", pin_prompts);
  return 0;
}
