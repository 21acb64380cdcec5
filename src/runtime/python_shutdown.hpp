#pragma once
// Ending the interpreter as python3 ends it, for hosts that end with it.

#include <kest/any.hpp>

namespace sarvode {

/// Finalizes the interpreter that this extension started, as python3 does at
/// its end: non-daemon threads joined, atexit handlers run, modules cleared
/// (files flushed and closed, `__del__` and generators' `finally` run), the
/// standard streams flushed. Returns 0, or 120 (python3's status) when a
/// standard stream could not be flushed. Refuses, with an Error and nothing
/// changed, when it is called from Python code, from a thread other than the
/// one that started Python, when Python was started by the host, while
/// other host threads still run Python code, or once code ran in the sandbox
/// (what it left for the end would run outside it).
kest::Any shutdownPython();

/// True once shutdownPython has finalized the interpreter: nothing may enter
/// Python any more.
bool pythonShutDown() noexcept;

/// The error that an entry into Python returns once Python was shut down.
kest::Any pythonShutDownError();

} // namespace sarvode
