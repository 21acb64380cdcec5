#pragma once
// The members of CPythonObject that reach into the Python object.

#include <kest/class.hpp>

#include <vector>

namespace sarvode {

/// The method entries of the object meta-methods, in their order of declaration.
std::vector<kest::Any> cpythonObjectMembers();

/// Installs the class-level fallback hooks (method lookup, property getter and setter).
void installCPythonObjectHooks(const kest::Class_Generic &cls);

} // namespace sarvode
