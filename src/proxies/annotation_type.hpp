#pragma once
// Python annotations as host types, for the signatures of Python functions.

#include "runtime/python.hpp"

#include <kest/type.hpp>

#include <string_view>

namespace sarvode {

/// The host type an annotation stands for: `int` and 'int | None' give
/// Integer, `list[int]` and 'typing.List[int]' the class of List, a class
/// the host type of that class; Untyped when nothing fits. The caller holds
/// the interpreter lock; no Python error is left pending.
kest::Type typeOfAnnotation(PyObject *annotation);

/// The host type for an annotation's name, after the cuts ("[...]", "| ...",
/// a module prefix); Untyped for a name without a host type.
kest::Type typeOfAnnotationName(std::string_view name);

} // namespace sarvode
