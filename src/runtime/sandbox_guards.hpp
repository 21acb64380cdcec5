#pragma once
// Guards for the interpreter functions that act outside the sandbox without an
// audit event (process creation, special files, signals, ending the process,
// the process's identity and scheduling).

#include "runtime/python.hpp"

#include <cstddef>

namespace sarvode {

/// Puts a guard in place of each such function (but those that
/// `installFirstSandboxGuards` guards), once, before any other code runs; a
/// guarded function raises PermissionError while a SandboxScope lives on the
/// calling thread. The caller holds the interpreter lock.
void installSandboxGuards();

/// The guards whose modules are slow to load and whose functions the audit
/// hook already stops (the guard gives only the sandbox's own error): put in
/// place, once, as the first sandbox scope opens, before it takes effect.
/// Should the import let the interpreter lock go, a scope that another thread
/// opens meanwhile runs before the guards are in place; there the functions
/// are still stopped, with the module's own RuntimeError. The caller holds
/// the interpreter lock; an error it has pending is kept.
void installFirstSandboxGuards();

/// How many functions are guarded (for tests).
std::size_t sandboxGuardCount() noexcept;

} // namespace sarvode
