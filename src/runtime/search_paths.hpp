#pragma once
// Where Python code may import from, beyond the interpreter's own defaults.

#include <string>

namespace sarvode {

/// Queues, in order: every ".zip" in <dir>/site-packages, <dir>/site-packages
/// itself, and every ".zip" in <dir>/python3/lib. Never throws.
void setupSearchPaths(const std::string &extensionDirectory);

/// The per-user folder for Python modules ("Sarvode/Python3XY" under the
/// user's local data folder), or empty when the environment names none.
std::string userPythonDirectory();

/// Creates the per-user folder (a failure is ignored) and queues it. Never throws.
void addUserPythonDirectory();

/// "Python" and the version digits of the interpreter that is loaded ("Python311").
std::string pythonVersionFolder();

} // namespace sarvode
