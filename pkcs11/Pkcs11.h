#pragma once
// The one place the module includes the PKCS#11 definitions: p11-kit's
// packaged pkcs11.h (version 2.40) with its standard CK_* names.
#include <p11-kit/pkcs11.h>
