#pragma once
// `KestObject`: the Python object that holds one host value.

#include "runtime/python.hpp"

#include <kest/any.hpp>

namespace sarvode {

/// The Python layout of every KestObject: a header and one heap copy of a host value.
struct KestObject {
  PyObject_HEAD
  kest::Any *value; // owned; null counts as an empty value
};

/// The base type ">KestObject" (created once, never freed).
PyTypeObject *kestObjectBaseType();

/// A new KestObject holding a copy of `value`; null with a Python error on failure.
PyObject *wrapKestObject(const kest::Any &value);
/// The same, for a caller that holds the interpreter lock.
PyObject *wrapKestObjectLocked(const kest::Any &value);

/// True when `object` is a KestObject (of the base type or a type derived from it).
bool isKestObject(PyObject *object);

/// The host value held by a KestObject (empty when it holds none).
kest::Any kestObjectValue(PyObject *object);

} // namespace sarvode
