#pragma once
// Host methods and properties reached through their class, as Python's method
// and attribute descriptors: `Drawing.append(drawing, shape)` works on an
// instance of the class (or of a class derived from it) and refuses anything
// else with the TypeError Python gives for the same mistake on a built-in type.

#include "runtime/python.hpp"

#include <kest/class.hpp>

#include <string_view>

namespace sarvode {

/// The descriptor for the member `name` that instances of `cls` have and that
/// needs an instance (a method or a property accessor that takes one); null
/// with no error when there is none, null with a Python error on failure.
/// `found` tells the two nulls apart. The caller holds the interpreter lock.
PyObject *instanceMemberDescriptor(const kest::Class_Generic &cls, std::string_view name, bool &found);

} // namespace sarvode
