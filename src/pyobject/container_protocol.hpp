#pragma once
// Host maps, sequences and sets as Python containers: the collections.abc
// interfaces on their types, slices, and construction from Python.

#include "runtime/python.hpp"

#include <kest/class.hpp>

#include <string_view>

namespace sarvode {

/// The Python text of the container methods (container_protocol_source.cpp).
extern const char *const containerProtocolSource;

enum class container_kind { none, map, sequence, set };

/// What kind of container the values of a host class are, and whether they
/// can be changed. Classes that wrap Python objects are none: Python sees the
/// objects themselves.
struct container_shape {
  container_kind kind = container_kind::none;
  bool mutable_ = false;
};
container_shape containerShape(const kest::Class_Generic &cls);

/// True when `name` is one of the Python methods of that kind of container
/// (`keys`, `pop`, `index`, ...): on the Python side it wins over a host
/// member of the same name.
bool isContainerMethodName(container_shape shape, std::string_view name);

/// Puts the container interface of its kind on a host class's new type and
/// registers the type with collections.abc. Does nothing for other classes.
/// The caller holds the interpreter lock; an error is cleared (the type
/// works without the interface).
void addContainerProtocol(PyTypeObject *type, const kest::Class_Generic &cls);
/// The same for a type shared by anonymous containers of one shape.
void addContainerProtocol(PyTypeObject *type, container_shape shape);

/// An iterator over a KestObject that holds a host List (kest::List): by
/// index, as Python's list iterator, without a host iterator per loop.
PyObject *iterateHostList(PyObject *self);

/// `self[slice]`, `self[slice] = values` and `del self[slice]` (values null)
/// on a host sequence. Null / -1 with a Python error on failure.
PyObject *sequenceSlice(PyObject *self, PyObject *slice);
int assignSequenceSlice(PyObject *self, PyObject *slice, PyObject *values);

/// The text Python gives its own containers (`{'a': 1}`, `[1, 2]`, `{1, 2}`),
/// for a host container whose class has no Python text of its own.
PyObject *containerRepr(PyObject *self);

/// `self * count` (a new List of the same element type) or, in place,
/// `self *= count`, as Python lists repeat, for host sequences without a
/// repeat of their own.
PyObject *repeatSequence(PyObject *self, Py_ssize_t count, bool in_place);

/// A copy of a host container that has no clone operation of its own: a new
/// List, HashMap or HashSet of the same element types with the same elements
/// (deep: each element deep-copied, with copy.deepcopy's `memo`).
PyObject *copyContainer(PyObject *self, bool deep, PyObject *memo);

/// A call of the host class List, HashMap or HashSet (or one of their typed
/// forms, `kest.List[kest.Integer]`) from Python: a new container filled from
/// the arguments. `handled` is false for every other class.
PyObject *constructContainer(const kest::Class_Generic &cls, PyObject *args, PyObject *kwargs, bool &handled);

/// What a host container class has in Python beside its host members:
/// `fromkeys` of a map class, and `__mro_entries__`, so that a class
/// statement can derive from it. `handled` is false for other names and classes.
PyObject *containerClassAttribute(const kest::Class_Generic &cls, std::string_view name, bool &handled);

/// `kest.List[T]`, `kest.HashSet[T]`, `kest.HashMap[K, V]`: the typed class.
/// `handled` is false for every other class.
PyObject *typedContainerClass(const kest::Class_Generic &cls, PyObject *key, bool &handled);

} // namespace sarvode
