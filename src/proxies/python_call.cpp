// The method-call operation: look a method up by name, convert the host
// arguments, call, convert the result back.

#include "proxies/python_call.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "language/python_error.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/python_entry.hpp"
#include "runtime/stack_guard.hpp"

#include <kest/kest.hpp>

#include <fmt/format.h>

namespace sarvode {

kest::Any pythonErrorOr(const kest::Any &fallback) {
  auto pending = currentPythonError();
  if (pending.is<kest::Error>())
    return pending;
  PyErr_Clear();
  return fallback;
}

kest::Any nullObjectError() { return kest::Error(kest::String(u"The object is null.")); }

std::string reprForMessage(PyObject *object) {
  if (!object)
    return "<null>";
  auto text = py::object::steal(PyObject_Repr(object));
  if (!text) {
    PyErr_Clear();
    return "<object>";
  }
  return std::string(py::utf8(text.get()));
}

PyObject *pythonArguments(std::span<const kest::Any> args, kest::Any &error) {
  auto tuple = py::object::steal(PyTuple_New(static_cast<Py_ssize_t>(args.size())));
  if (!tuple) {
    error = pythonErrorOr(kest::Error(kest::String(u"Unable to make the arguments.")));
    return nullptr;
  }
  for (std::size_t i = 0; i < args.size(); ++i) {
    PyObject *item = toPythonLocked(args[i]);
    if (!item) {
      error = pythonErrorOr(kest::Error(kest::String::fromUtf8(
          fmt::format("Unable to convert an argument: {}.", kest::display(args[i]).utf8View()))));
      return nullptr;
    }
    PyTuple_SetItem(tuple.get(), static_cast<Py_ssize_t>(i), item); // steals the item
  }
  return tuple.release();
}

kest::Any callPythonLocked(PyObject *callable, std::span<const kest::Any> args) {
  kest::Any error;
  auto tuple = py::object::steal(pythonArguments(args, error));
  if (!tuple)
    return error;
  auto result = py::object::steal(stackHasRoom() ? PyObject_Call(callable, tuple.get(), nullptr) : nullptr);
  if (!result)
    return pythonErrorOr(kest::Error(kest::String(u"The call failed without a Python error.")));
  return fromPython(result.get());
}

kest::Any callPythonMethodLocked(PyObject *object, const char *name, std::span<const kest::Any> args) {
  if (!object)
    return nullObjectError();
  auto method = py::object::steal(PyObject_GetAttrString(object, name));
  if (!method || !PyCallable_Check(method.get())) {
    PyErr_Clear();
    return kest::Error(kest::String::fromUtf8(
        fmt::format("The method is missing: {}, target object: {}.", name, reprForMessage(object))));
  }
  return callPythonLocked(method.get(), args);
}

kest::Any callPythonMethod(const kest::Any &wrapper, const char *name, std::span<const kest::Any> args) {
  PythonEntry entry(wrapper);
  return callPythonMethodLocked(pythonObjectOf(wrapper), name, args);
}

} // namespace sarvode
