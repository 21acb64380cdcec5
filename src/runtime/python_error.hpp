#pragma once
// The pending Python exception as a host error.

#include <kest/error.hpp>

namespace sarvode {

/// Takes the pending Python exception and returns it as a host error with the
/// exception's text; `Error::unknown()` when nothing is pending. The caller
/// holds the interpreter lock. No Python error is pending afterwards.
kest::Error takePythonError();

} // namespace sarvode
