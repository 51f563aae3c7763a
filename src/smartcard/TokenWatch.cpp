#include "smartcard/TokenWatch.h"

namespace quorvant::shared::x509 {

std::atomic<bool> TokenWatch::enabled_{false};

}  // namespace quorvant::shared::x509
