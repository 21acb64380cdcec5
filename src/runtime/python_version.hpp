#pragma once
// Whether the Python the host loaded is one this build serves.

#include <string>

namespace sarvode {

/// Empty when the running Python is 3.11 or later; otherwise why it is refused.
/// Asked once, before Python starts.
const std::string &pythonRefusal();

} // namespace sarvode
