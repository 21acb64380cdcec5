#pragma once
// `KestObject`: the Python object that holds one host value.

#include "runtime/python.hpp"

#include <kest/any.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace sarvode {

class member_cache;

/// What a KestObject points at: first the host value it holds, then what
/// makes attribute access and method calls fast.
struct KestValue {
  kest::Any value; // first, so that the object's pointer is a pointer to its host value
  /// What names mean on the value's class; null when the value is a class or
  /// a method object, whose attributes are always looked up the general way.
  member_cache *members = nullptr;
  /// The last method object handed out for this value, handed out again once
  /// nobody else holds it (a strong reference, or null).
  PyObject *method_object = nullptr;
  /// For a method object: the method that `value` binds, and the arguments
  /// of a call with the instance first, kept between calls so that a call
  /// needs neither the bound method nor a copy of the instance's handle.
  kest::Any method;
  std::unique_ptr<kest::Any[]> arguments; // `most_arguments` + 1 slots
  /// The members epoch in which `method` was found to apply to the instance's
  /// class: calls in the same epoch need not check the receiver again.
  std::uint64_t applies_in_epoch = 0;
  bool calling = false;                   // the slots are in use (by a call that led to this one)
  static constexpr std::size_t most_arguments = 7;

  /// The instance of a method object.
  const kest::Any &self() const noexcept { return arguments[0]; }
};

/// The Python layout of every KestObject: a header and one pointer to a heap
/// copy of a host value.
struct KestObject {
  PyObject_HEAD
  KestValue *value;   // owned; null counts as an empty value
  PyObject *weakrefs; // Python's list of weak references to this object (weakref.ref works)
};

/// The base type ">KestObject" (created once, never freed).
PyTypeObject *kestObjectBaseType();

/// A new KestObject holding a copy of `value`; null with a Python error on failure.
PyObject *wrapKestObject(const kest::Any &value);
/// The same, for a caller that holds the interpreter lock.
PyObject *wrapKestObjectLocked(const kest::Any &value);

/// True when `object` is a KestObject (of the base type or a type derived from
/// it, a Python subclass of a host class's type included).
bool isKestObject(PyObject *object);

/// A new KestObject of `type` (a KestObject type, or a Python subclass of one)
/// holding `value`; null with a Python error. The caller holds the interpreter lock.
PyObject *newKestObjectOfType(PyTypeObject *type, const kest::Any &value);

/// Makes the instances of a Python class derived from a host class's type
/// KestObjects (the class statement calls it, through __init_subclass__).
void registerKestSubclass(PyTypeObject *type);

/// True when `type` is a Python class derived from a host class's type.
bool isKestSubclass(const PyTypeObject *type);

/// The host value held by a KestObject (empty when it holds none).
kest::Any kestObjectValue(PyObject *object);

/// A method object for `method` bound to the value of `self` (a new
/// reference): the one handed out last when nobody else holds it and it binds
/// the same method, else a new one. The caller holds the interpreter lock and
/// found `method` in the member cache of the value's class, which checked in
/// members epoch `epoch` that it applies to the value.
PyObject *methodObjectFor(KestValue &self, const kest::Any &method, std::uint64_t epoch);

} // namespace sarvode
