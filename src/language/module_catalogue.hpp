#pragma once
// The host module "python": its standard entries, and every installed
// top-level Python module on request.

namespace sarvode {

/// Builds the standard entries of the host module "python" ("python.builtins",
/// "python.collections", ...); an entry that cannot be made is left out.
void addStandardPythonModules();

/// Adds a host module "python.NAME" for every installed top-level Python
/// module (but "builtins", "this", "antigravity", "sys" and names beginning
/// with "_"), reachable from "python" by its name. Once per process.
void importAllModules();

} // namespace sarvode
