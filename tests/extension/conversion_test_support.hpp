#pragma once
// Helpers shared by the conversion tests: evaluating Python snippets into
// objects, reading Python values back, and converting while checking that no
// Python error is left pending.

#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include "convert/from_python.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>

namespace sarvode::test_support {

/// Runs `code` as statements in a fresh dictionary and returns the dictionary
/// (a new reference), or an empty object when the code raised (the error is
/// cleared and reported as a test failure). The caller holds the lock.
inline py::object exec_py(const std::string &code) {
  auto globals = py::object::steal(PyDict_New());
  auto result = py::object::steal(runWithBuiltin("exec", code.c_str(), globals.get(), globals.get()));
  if (!result) {
    PyErr_Print();
    ADD_FAILURE() << "Python code raised:\n" << code;
    return {};
  }
  return globals;
}

/// Runs `code` and returns the global `name` it defined (a new reference).
inline py::object exec_get(const std::string &code, const char *name) {
  auto globals = exec_py(code);
  if (!globals)
    return {};
  PyObject *value = PyDict_GetItemString(globals.get(), name); // borrowed
  if (!value)
    ADD_FAILURE() << "the code defined no '" << name << "'";
  return py::object::borrow(value);
}

/// Evaluates one expression (a new reference); a raised error fails the test.
inline py::object eval_py(const std::string &expression) {
  auto globals = py::object::steal(PyDict_New());
  auto result = py::object::steal(runWithBuiltin("eval", expression.c_str(), globals.get(), globals.get()));
  if (!result) {
    PyErr_Print();
    ADD_FAILURE() << "Python expression raised: " << expression;
  }
  return result;
}

/// The UTF-8 text of a str object ("" for anything else).
inline std::string utf8_of(PyObject *text) {
  if (!text || !PyUnicode_Check(text))
    return {};
  Py_ssize_t size = 0;
  const char *utf8 = PyUnicode_AsUTF8AndSize(text, &size);
  if (!utf8) {
    PyErr_Clear();
    return {};
  }
  return std::string(utf8, static_cast<std::size_t>(size));
}

/// The text of attribute `name` of `object` when it is a str.
inline std::string text_attribute(PyObject *object, const char *name) {
  auto value = py::object::steal(PyObject_GetAttrString(object, name));
  if (!value) {
    PyErr_Clear();
    return {};
  }
  return utf8_of(value.get());
}

/// True when `a == b` in Python (an error counts as false and is reported).
inline bool python_equal(PyObject *a, PyObject *b) {
  const int r = PyObject_RichCompareBool(a, b, Py_EQ);
  if (r < 0) {
    PyErr_Clear();
    ADD_FAILURE() << "Python comparison raised";
    return false;
  }
  return r == 1;
}

/// True when `a == eval(expression)` in Python.
inline bool python_equals_expression(PyObject *a, const std::string &expression) {
  auto expected = eval_py(expression);
  return expected && a && python_equal(a, expected.get());
}

/// True when the type of `object` is exactly the result of `expression`.
inline bool has_exact_type(PyObject *object, const std::string &expression) {
  auto type = eval_py(expression);
  return type && object && reinterpret_cast<PyObject *>(Py_TYPE(object)) == type.get();
}

/// The integer value of a Python int; fails the test for anything else.
inline long long long_of(PyObject *object) {
  if (!object || !PyLong_Check(object)) {
    ADD_FAILURE() << "not a Python int";
    return 0;
  }
  const long long v = PyLong_AsLongLong(object);
  if (v == -1 && PyErr_Occurred()) {
    PyErr_Clear();
    ADD_FAILURE() << "Python int out of range";
  }
  return v;
}

/// fromPython, reporting a Python error that it left pending.
inline kest::Any from_python_checked(PyObject *object) {
  auto value = fromPython(object);
  EXPECT_EQ(PyErr_Occurred(), nullptr) << "fromPython left a Python error pending";
  PyErr_Clear();
  return value;
}

/// The Python error currently pending, fetched and normalised, as its value
/// (a new reference; empty when none is pending). Clears the error.
inline py::object take_exception() {
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  if (!type)
    return {};
  PyErr_NormalizeException(&type, &value, &traceback);
  if (traceback && value)
    PyException_SetTraceback(value, traceback);
  Py_DecRef(type);
  if (traceback)
    Py_DecRef(traceback);
  return py::object::steal(value);
}

/// The message of a host error as UTF-8.
inline std::string message_of(const kest::Any &error) {
  if (!kest::Error::isInstance(error))
    return "<not an error>";
  return kest::Error::unsafeFrom(error).message().toUtf8();
}

/// Declares a class from entries; a failed declaration fails the test.
inline kest::Class_Generic declare_class(const std::vector<kest::Any> &entries) {
  auto r = kest::internal::defclass_impl(entries);
  if (r.isError()) {
    ADD_FAILURE() << "declaration failed: " << message_of(r);
    return {};
  }
  return r.as<kest::Class_Generic>();
}

} // namespace sarvode::test_support
