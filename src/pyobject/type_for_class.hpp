#pragma once
// The Python type of each host class.

#include "runtime/python.hpp"

#include <kest/class.hpp>

namespace sarvode {

/// The KestObject type for a host class (a new reference): a type of its own,
/// named "kest~" and the qualified name, for a named class; one of the shared
/// ">KestObject" types for an anonymous one. Null with a Python error on failure.
PyTypeObject *typeForClass(const kest::Class_Generic &cls);
/// The same, for a caller that holds the interpreter lock.
PyTypeObject *typeForClassLocked(const kest::Class_Generic &cls);

} // namespace sarvode
