#pragma once
// `CPythonModule` and the module export: a Python module as a host Module,
// its public classes and callables as the module's members.

#include "runtime/python.hpp"

#include <kest/module.hpp>

#include <string>

namespace sarvode {

/// The class, declared on first use (base: the host Module class).
kest::Class_Generic cpythonModuleClass();

/// Imports the Python module `pythonName` and registers it in the host's
/// module table under `hostName` (the first registration of a name wins),
/// with its public classes and callables; with `withSubmodules`, its public
/// sub-modules too, each under hostName + "." + name and reachable from it by
/// the short name. Nothing when the module cannot be imported. Takes the lock.
kest::Union<kest::Module, kest::None> exportPythonModule(const std::string &pythonName, const kest::String &hostName,
                                                          bool withSubmodules);

/// Makes `child` reachable from `parent` as the class property `name`.
void addModuleToParent(const kest::Module &parent, const kest::Module &child, const kest::String &name);

} // namespace sarvode
