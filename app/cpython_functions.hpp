#pragma once
// The host functions that the Python extension registers in "kest.cpython"
// (interrupt, current_thread, shutdown, ...), found at run time: sarvode does
// not link the extension.

#include <kest/kest.hpp>

#include <optional>

namespace sarvode {

/// The host function `name` of "kest.cpython", if the Python extension gave it.
std::optional<kest::I_Callable_Generic> cpython_function(const char16_t *name);

/// Asks the extension to leave Python's own time.sleep in place on this
/// thread: sarvode ends a sleep with SIGINT, as python3's Ctrl-C does.
void keep_standard_sleep();

} // namespace sarvode
