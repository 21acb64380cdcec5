#pragma once
// The Python type of each host class.

#include "runtime/python.hpp"

#include <kest/class.hpp>

#include <optional>
#include <utility>

namespace sarvode {

/// The KestObject type for a host class (a new reference): a type of its own,
/// named "kest~" and the qualified name, for a named class; one of the shared
/// ">KestObject" types for an anonymous one. Null with a Python error on failure.
PyTypeObject *typeForClass(const kest::Class_Generic &cls);
/// The same, for a caller that holds the interpreter lock.
PyTypeObject *typeForClassLocked(const kest::Class_Generic &cls);

class member_cache;

/// The type of a class's values (a new reference) and the cache of what names
/// mean on them (kept for the process; null for an empty class). The caller
/// holds the interpreter lock. A null type comes with a Python error.
std::pair<PyTypeObject *, member_cache *> typeAndMembersForClassLocked(const kest::Class_Generic &cls);

/// The named class whose own type `type` is; nothing for any other type
/// (shared types, Python subclasses).
std::optional<kest::Class_Generic> classOfOwnType(const PyTypeObject *type);

} // namespace sarvode
