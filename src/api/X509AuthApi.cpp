// The exported C functions. Everything the host can call goes through here.
#include "x509_auth.h"

#include "api/X509Settings.h"

using quorvant::shared::x509::X509Settings;

extern "C" {

int X509_Auth_GetApiVersion(void) { return X509_AUTH_API_VERSION; }

void X509_Auth_PostInitUpdateSettings(const X509_Auth_Settings* settings) {
  if (settings != nullptr) X509Settings::GetInstance().Replace(*settings);
}

}  // extern "C"
