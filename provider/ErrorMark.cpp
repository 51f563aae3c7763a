#include "ErrorMark.h"

#include <openssl/err.h>

namespace x509auth_provider {

// On an empty queue there is nothing to mark, and popping to the mark then
// empties the queue again: exactly what was queued since.
ErrorMark::ErrorMark() { ERR_set_mark(); }

ErrorMark::~ErrorMark() { ERR_pop_to_mark(); }

}  // namespace x509auth_provider
