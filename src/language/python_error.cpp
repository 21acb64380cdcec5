// Python exceptions as host errors.

#include "language/python_error.hpp"

#include "convert/from_python.hpp"
#include "convert/python_classes.hpp"
#include "convert/type_mapping.hpp"
#include "language/exception_types.hpp"
#include "language/exit_errors.hpp"

#include <kest/kest.hpp>

#include <optional>

namespace sarvode {

namespace {
struct fetched {
  py::object type, value, traceback;
};

fetched fetch() {
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  if (traceback && value)
    PyException_SetTraceback(value, traceback);
  return {py::object::steal(type), py::object::steal(value), py::object::steal(traceback)};
}

/// A whole-number attribute; missing, None or not convertible counts as absent.
std::optional<std::int64_t> position(PyObject *object, const char *name) {
  auto value = py::object::steal(PyObject_GetAttrString(object, name));
  if (!value || value.get() == Py_None) {
    PyErr_Clear();
    return std::nullopt;
  }
  const long long v = PyLong_AsLongLong(value.get());
  if (v == -1 && PyErr_Occurred()) {
    PyErr_Clear();
    return std::nullopt;
  }
  return v;
}

std::string utf8_of(PyObject *text) { return std::string(py::utf8(text)); }

std::string str_of(PyObject *object) {
  auto text = py::object::steal(PyObject_Str(object));
  if (!text) {
    PyErr_Clear();
    return {};
  }
  return utf8_of(text.get());
}

/// Python's own rendering of an exception and its traceback, joined.
std::string formatted(PyObject *exception) {
  PyObject *format = python_classes::format_exception();
  if (!format)
    return {};
  auto lines = py::object::steal(PyObject_CallFunctionObjArgs(format, exception, nullptr));
  if (!lines) {
    PyErr_Clear();
    return {};
  }
  std::string out;
  auto iterator = py::object::steal(PyObject_GetIter(lines.get()));
  while (iterator) {
    auto line = py::object::steal(PyIter_Next(iterator.get()));
    if (!line)
      break;
    out += utf8_of(line.get());
  }
  PyErr_Clear();
  return out;
}

/// True when the exception carries a host error (its instance attribute "kest").
bool carries_host_error(PyObject *exception) {
  auto carried = py::object::steal(PyObject_GetAttrString(exception, "kest"));
  if (!carried)
    PyErr_Clear();
  return carried && carried.get() != Py_None;
}

kest::Class_Generic error_class_for(PyObject *exception) {
  PyObject *type = reinterpret_cast<PyObject *>(Py_TYPE(exception));
  if (type == PyExc_StopIteration)
    return kest::StopIteration::getClass();
  if (auto cls = exitErrorClassFor(exception))
    return cls;
  if (auto cls = errorClassForExceptionType(type))
    return cls;
  auto mapped = typeFromPython(type);
  if (kest::Class_Generic::isInstance(mapped)) {
    auto cls = kest::Class_Generic::unsafeFrom(mapped);
    if (kest::I_Callable_Generic::isInstance(cls) &&
        kest::I_Callable_Generic::unsafeFrom(cls).resultType().conformsTo(kest::Error::getType()))
      return cls;
  }
  return kest::Error::getClass();
}

std::string notes_of(PyObject *exception) {
  std::string out;
  auto notes = py::object::steal(PyObject_GetAttrString(exception, "__notes__"));
  if (!notes || !PyList_Check(notes.get())) {
    PyErr_Clear();
    return out;
  }
  for (Py_ssize_t i = 0, n = PyList_Size(notes.get()); i < n; ++i)
    if (PyObject *note = PyList_GetItem(notes.get(), i); note && PyUnicode_Check(note))
    {
      out.push_back('\n');
      out += utf8_of(note);
    }
  return out;
}
} // namespace

kest::Any errorFromException(PyObject *exception) {
  // A host error that travelled through Python comes back as it was.
  auto carried = py::object::steal(PyObject_GetAttrString(exception, "kest"));
  if (carried && carried.get() != Py_None)
    return fromPython(carried.get());
  PyErr_Clear();

  auto cls = error_class_for(exception);
  std::string text;
  const bool syntax = PyObject_IsInstance(exception, PyExc_SyntaxError) > 0;
  PyErr_Clear();
  const std::string stack = formatted(exception);
  if (syntax)
    text = stack; // keeps Python's rendering of the offending line and its caret
  if (text.empty())
    text = str_of(exception);
  text += notes_of(exception);
  auto error = kest::Error::create(cls, kest::String::fromUtf8(text));
  error.setStack(kest::String::fromUtf8(stack));
  if (cls.isSame(systemExitErrorClass())) {
    // The exit code, for a host that ends as Python would.
    auto code = py::object::steal(PyObject_GetAttrString(exception, "code"));
    PyErr_Clear();
    error.setValue(code ? fromPython(code.get()) : kest::Any());
  }
  return error;
}

namespace {
/// The host form of a fetched exception value. Every exception instance is an
/// error here, those that derive from BaseException only (SystemExit,
/// KeyboardInterrupt, ...) included.
kest::Any error_value_of(PyObject *value) {
  if (value && PyExceptionInstance_Check(value))
    return errorFromException(value);
  return fromPython(value);
}
} // namespace

kest::Union<kest::Error, kest::None> currentPythonError() {
  if (!PyErr_Occurred())
    return kest::None();
  auto f = fetch();
  auto value = error_value_of(f.value.get());
  PyErr_Clear();
  if (kest::Error::isInstance(value))
    return kest::Error::unsafeFrom(value);
  return kest::None();
}

kest::Error errorFromPython(std::int64_t lineOffset, std::int64_t columnOffset) {
  if (!PyErr_Occurred())
    return kest::Error::unknown();
  auto f = fetch();
  auto value = f.value ? error_value_of(f.value.get()) : kest::Any();
  PyErr_Clear();
  kest::Error error = kest::Error::isInstance(value) ? kest::Error::unsafeFrom(value) : kest::Error::unknown();
  if (!f.value)
    return error;
  // A host error that travelled through Python comes back as itself, and the
  // end of an iteration stays a StopIteration; only the errors made here from
  // other Python exceptions gain a position.
  if (carries_host_error(f.value.get()) || kest::StopIteration::isInstance(error))
    return error;
  // A request to end the program keeps its class (and exit code): it has no position.
  if (exitErrorClassFor(f.value.get()))
    return error;

  std::optional<std::int64_t> line = position(f.value.get(), "lineno");
  std::optional<std::int64_t> column = position(f.value.get(), "offset");
  const auto end_line = position(f.value.get(), "end_lineno");
  const auto end_column = position(f.value.get(), "end_offset");
  std::optional<std::int64_t> span_length;
  if (line && column && end_line && end_column && *line == *end_line && *end_column > *column)
    span_length = *end_column - *column;

  if (!line) {
    // The innermost frame of the traceback that has a line number wins.
    py::object frame = py::object::borrow(f.traceback.get());
    while (frame && frame.get() != Py_None) {
      if (auto n = position(frame.get(), "tb_lineno"))
        line = n;
      auto next = py::object::steal(PyObject_GetAttrString(frame.get(), "tb_next"));
      if (!next)
        PyErr_Clear();
      frame = std::move(next);
    }
  }
  if (line)
    *line += lineOffset;
  if (column)
    *column += columnOffset;
  if (!line && !column)
    return error;

  auto as_position = [](const std::optional<std::int64_t> &v) -> kest::Union<kest::Integer, kest::None> {
    if (v)
      return kest::Integer(*v);
    return kest::None();
  };
  kest::EvaluationError positioned(error.message(), as_position(line), as_position(column),
                                   as_position(span_length ? column : std::nullopt), as_position(span_length));
  positioned.setStack(error.stack());
  return positioned;
}

} // namespace sarvode
