#pragma once
// Starting the interpreter once per process, the pending sys.path entries,
// and running code through the builtins "eval" and "exec".

#include "runtime/python.hpp"

#include <kest/none.hpp>
#include <kest/string.hpp>

namespace sarvode {

/// Starts the interpreter the first time any part of the extension needs it:
/// installs the sandbox audit hook, starts Python, applies the queued search
/// paths, releases the interpreter lock and fills the host module "python".
/// A host that started Python itself gets none of that. An exception leaves
/// the step undone, so that a later call tries again.
void ensurePythonReady();

/// Adds a directory to sys.path once; before start-up it is queued.
kest::Result<kest::None> addSysPath(const kest::String &directory);

/// The builtin function `name` of the running code's builtins (borrowed), or
/// null with a Python error set ("the builtin NAME is missing" when the
/// builtins lack it). The caller holds the interpreter lock.
PyObject *builtinFunction(const char *name);

/// Runs `code` with the builtin "eval" or "exec" (`builtin` names which) in the
/// given globals and locals (borrowed). The caller holds the interpreter lock.
/// Returns a new reference, or null (with a Python exception set, except when
/// the builtins or the builtin itself are missing).
PyObject *runWithBuiltin(const char *builtin, const char *code, PyObject *globals, PyObject *locals);

/// True when this extension started the interpreter and installed the sandbox hook.
bool sandboxHookInstalled() noexcept;

/// The thread (Python's identity of it) that started the interpreter; 0 when
/// it is not running or the host started it.
unsigned long startingThread() noexcept;

/// The number of directories queued while the interpreter was not running.
std::int64_t pendingSysPathCount();

} // namespace sarvode
