// The method-call operation: look a method up by name, convert the host
// arguments, call, convert the result back.

#include "proxies/python_call.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "language/python_error.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/python_entry.hpp"
#include "runtime/call_protocol.hpp"
#include "runtime/stack_guard.hpp"

#include <kest/kest.hpp>

#include <fmt/format.h>

#include <iterator>
#include <vector>

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

namespace {
/// One argument in its Python form (a new reference); null with the host
/// error in `error` when it has none.
PyObject *python_argument(const kest::Any &argument, kest::Any &error) {
  PyObject *item = toPythonLocked(argument);
  if (!item)
    error = pythonErrorOr(kest::Error(kest::String::fromUtf8(
        fmt::format("Unable to convert an argument: {}.", kest::display(argument).utf8View()))));
  return item;
}
} // namespace

PyObject *pythonArguments(std::span<const kest::Any> args, kest::Any &error) {
  auto tuple = py::object::steal(PyTuple_New(static_cast<Py_ssize_t>(args.size())));
  if (!tuple) {
    error = pythonErrorOr(kest::Error(kest::String(u"Unable to make the arguments.")));
    return nullptr;
  }
  for (std::size_t i = 0; i < args.size(); ++i) {
    PyObject *item = python_argument(args[i], error);
    if (!item)
      return nullptr;
    PyTuple_SetItem(tuple.get(), static_cast<Py_ssize_t>(i), item); // steals the item
  }
  return tuple.release();
}

namespace {
/// The Python forms of a call's arguments, each owned, after a free first
/// slot (see callPositional); a few live on the stack, more on the heap.
class converted_arguments {
public:
  explicit converted_arguments(std::size_t count) : m_count(count) {
    if (count + 1 > std::size(m_inline)) {
      m_heap.assign(count + 1, nullptr);
      m_slots = m_heap.data();
    }
  }
  converted_arguments(const converted_arguments &) = delete;
  converted_arguments &operator=(const converted_arguments &) = delete;
  ~converted_arguments() {
    for (std::size_t i = 1; i <= m_count; ++i)
      Py_DecRef(m_slots[i]); // null-safe: a failed conversion leaves the rest null
  }
  /// Converts every argument; false with the host error in `error` at the first that does not convert.
  bool convert(std::span<const kest::Any> args, kest::Any &error) {
    for (std::size_t i = 0; i < args.size(); ++i)
      if (!(m_slots[i + 1] = python_argument(args[i], error)))
        return false;
    return true;
  }
  [[nodiscard]] PyObject **slots() noexcept { return m_slots; }

private:
  std::size_t m_count;
  PyObject *m_inline[9] = {};
  std::vector<PyObject *> m_heap;
  PyObject **m_slots = m_inline;
};
} // namespace

kest::Any callPythonLocked(PyObject *callable, std::span<const kest::Any> args) {
  converted_arguments arguments(args.size());
  kest::Any error;
  if (!arguments.convert(args, error))
    return error;
  auto result =
      py::object::steal(stackHasRoom() ? callPositional(callable, arguments.slots(), args.size()) : nullptr);
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
  return callPythonMethodLocked(entry.object(), name, args);
}

} // namespace sarvode
