#pragma once
// The host module "python": its standard entries, and every installed
// top-level Python module on request.

namespace sarvode {

/// Has the standard entries of the host module "python" ("python.builtins",
/// "python.collections", ...) made on first use: the first lookup of
/// "python" or of a module under it, or a complete listing of the module
/// table. Start-up then imports none of their Python modules. An entry that
/// cannot be made is left out.
void deferStandardPythonModules();

/// Adds a host module "python.NAME" for every installed top-level Python
/// module (but "builtins", "this", "antigravity", "sys" and names beginning
/// with "_"), reachable from "python" by its name. Once per process.
void importAllModules();

} // namespace sarvode
