// The native forms of the wrappers' interface operations: host loops, calls
// and lookups reach Python without looking a member up by name. Each behaves
// exactly as the member it stands for; where the wrapped object is exactly a
// list, tuple or dict, the concrete protocol gives the same results and errors.

#include "proxies/native_protocols.hpp"

#include "convert/from_python.hpp"
#include "convert/python_names.hpp"
#include "convert/to_python.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/proxy_classes.hpp"
#include "proxies/python_call.hpp"
#include "proxies/python_entry.hpp"
#include "runtime/sandbox.hpp"

#include <kest/kest.hpp>

#include <optional>
#include <utility>

namespace sarvode {

namespace {
bool exactly_list_or_tuple(PyObject *object) { return PyList_CheckExact(object) || PyTuple_CheckExact(object); }
bool exactly_builtin_container(PyObject *object) {
  return exactly_list_or_tuple(object) || PyDict_CheckExact(object) || PyAnySet_CheckExact(object);
}

kest::Any call(const kest::Any &self, std::span<const kest::Any> args) {
  PythonEntry entry(self);
  PyObject *fn = entry.object();
  if (!fn)
    return {}; // a wrapper without a function gives no result
  return callPythonLocked(fn, args);
}

/// The member "iter": a CPythonProxyIterator over what __iter__ returns.
kest::Any iter(const kest::Any &self) { return iterateProxy(self); }

/// The next element into `element` for a host loop: an int refills the
/// Integer the loop let go of. Empty, or what ends the loop.
kest::Any next_into(const kest::Any &self, kest::Any &element) {
  PythonEntry entry(self);
  PyObject *iterator = entry.object();
  if (!iterator)
    return kest::StopIteration();
  auto item = py::object::steal(PyIter_Next(iterator));
  if (!item)
    return PyErr_Occurred() ? pythonErrorOr(kest::StopIteration()) : kest::StopIteration();
  fromPythonInto(element, item.get());
  return kest::Error::isInstance(element) ? std::exchange(element, kest::Any()) : kest::Any();
}

/// The element at the loop's position into `element`, for `loop_step`; the
/// caller holds the interpreter lock (and the sandbox scope when it applies).
kest::Any step_over(PyObject *sequence, kest::internal::loop_state &state, kest::Any &element) {
  const bool list = PyList_CheckExact(sequence);
  const Py_ssize_t size = list ? PyList_Size(sequence) : PyTuple_Size(sequence);
  const auto position = static_cast<Py_ssize_t>(state.position);
  if (position >= size)
    return kest::StopIteration();
  ++state.position;
  PyObject *item = list ? PyList_GetItem(sequence, position) : PyTuple_GetItem(sequence, position); // borrowed
  if (PyLong_CheckExact(item)) { // read without running Python code: the sequence cannot drop it meanwhile
    std::int64_t value = 0;
    if (!int64Of(item, value)) [[unlikely]]
      return int64OutOfRange();
    kest::internal::assign_integer(element, value); // refills the element's Integer when only the loop holds it
    return {};
  }
  Py_IncRef(item); // held while it is converted
  fromPythonInto(element, item);
  Py_DecRef(item);
  return kest::Error::isInstance(element) ? std::exchange(element, kest::Any()) : kest::Any();
}

/// A host loop straight over an exact list or tuple, read as Python's list
/// and tuple iterators read it: the length is asked at every step, so a loop
/// that appends, shrinks or replaces sees what Python's own `for` sees. The
/// wrapper, which the loop holds, keeps the object alive. Anything else
/// walks the iterator that its "iter" gives.
kest::Any loop_step(const kest::Any &self, kest::internal::loop_state &state, kest::Any &element) {
  if (!state.target) {
    // `self` is the wrapper itself (a loop takes this step only for an
    // instance of the class), so what it holds lives as long as it does.
    const PythonTarget target(self);
    if (!target.object() || !exactly_list_or_tuple(target.object()))
      return kest::Undefined();
    state.target = target.object();
    state.flag = target.sandboxed();
  }
  auto *sequence = static_cast<PyObject *>(const_cast<void *>(state.target));
  py::gil lock;
  std::optional<SandboxScope> sandbox; // inside the lock, as every entry opens it
  if (state.flag) [[unlikely]]
    sandbox.emplace();
  return step_over(sequence, state, element); // its one call: made inline
}

/// The member "next": the element, or what ends the iteration.
kest::Any next(const kest::Any &self) {
  kest::Any element;
  kest::Any end = next_into(self, element);
  return end.empty() ? element : end;
}

kest::Any get(const kest::Any &self, const kest::Any &key) {
  PythonEntry entry(self);
  PyObject *map = entry.object();
  if (!map)
    return nullObjectError();
  if (!PyDict_CheckExact(map))
    return callPythonMethodLocked(map, "__getitem__", std::span<const kest::Any>(&key, 1));
  auto py_key = py::object::steal(pythonKey(key));
  if (!py_key)
    return pythonErrorOr(kest::Error(kest::String(u"Unable to convert an argument.")));
  PyObject *value = PyDict_GetItemWithError(map, py_key.get()); // borrowed
  if (value)
    return fromPython(value);
  if (!PyErr_Occurred()) {
    // What dict.__getitem__ raises: KeyError with the key as its one argument.
    auto args = py::object::steal(PyTuple_Pack(1, py_key.get()));
    if (args)
      PyErr_SetObject(PyExc_KeyError, args.get());
  }
  return pythonErrorOr(kest::Error(kest::String(u"Key not found.")));
}

kest::Any at(const kest::Any &self, std::int64_t index) {
  PythonEntry entry(self);
  PyObject *sequence = entry.object();
  if (!sequence)
    return nullObjectError();
  if (!exactly_list_or_tuple(sequence)) {
    const kest::Any argument = kest::Integer(index);
    return callPythonMethodLocked(sequence, "__getitem__", std::span<const kest::Any>(&argument, 1));
  }
  const bool list = PyList_CheckExact(sequence);
  const Py_ssize_t size = list ? PyList_Size(sequence) : PyTuple_Size(sequence);
  const auto position = index < 0 ? index + size : index;
  if (position < 0 || position >= size) {
    PyErr_SetString(PyExc_IndexError, list ? "list index out of range" : "tuple index out of range");
    return pythonErrorOr(kest::Error(kest::String(u"Index out of range.")));
  }
  PyObject *item = list ? PyList_GetItem(sequence, static_cast<Py_ssize_t>(position))
                        : PyTuple_GetItem(sequence, static_cast<Py_ssize_t>(position)); // borrowed
  return fromPython(item);
}

kest::Any length(const kest::Any &self) {
  PythonEntry entry(self);
  PyObject *object = entry.object();
  if (!object)
    return nullObjectError();
  if (!exactly_builtin_container(object)) {
    auto n = callPythonMethodLocked(object, "__len__", {});
    return kest::Error::isInstance(n) ? n : kest::internal::result_unwrap_lazy(kest::Integer::checkedCast(n));
  }
  const Py_ssize_t n = PyObject_Size(object);
  if (n < 0)
    return pythonErrorOr(kest::Error(kest::String(u"Unable to take the length.")));
  return kest::Integer(static_cast<std::int64_t>(n));
}

const kest::internal::native_protocol function_protocol{.call = &call};
const kest::internal::native_protocol iterable_protocol{.iter = &iter};
const kest::internal::native_protocol iterator_protocol{.next = &next, .next_into = &next_into};
const kest::internal::native_protocol sequence_protocol{
    .iter = &iter, .at = &at, .length = &length, .loop_step = &loop_step};
const kest::internal::native_protocol mapping_protocol{.iter = &iter, .get = &get, .length = &length};
const kest::internal::native_protocol set_protocol{.iter = &iter, .length = &length};
} // namespace

namespace native {
const kest::internal::native_protocol &function() { return function_protocol; }
const kest::internal::native_protocol &iterable() { return iterable_protocol; }
const kest::internal::native_protocol &iterator() { return iterator_protocol; }
const kest::internal::native_protocol &sequence() { return sequence_protocol; }
const kest::internal::native_protocol &mapping() { return mapping_protocol; }
const kest::internal::native_protocol &set() { return set_protocol; }
} // namespace native

} // namespace sarvode
