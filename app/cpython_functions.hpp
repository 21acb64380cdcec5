#pragma once
// The host functions that the Python extension registers in "kest.cpython"
// (interrupt, current_thread, shutdown, ...), found at run time: sarvode does
// not link the extension.

#include <kest/kest.hpp>

#include <optional>

namespace sarvode {

/// The host function `name` of "kest.cpython", if the Python extension gave it.
std::optional<kest::I_Callable_Generic> cpython_function(const char16_t *name);

} // namespace sarvode
