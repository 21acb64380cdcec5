#pragma once
// Helpers for the tests of KestObject, its operator protocols and the host
// importer: declaring host classes with members, putting host values into a
// Python namespace, running code there and catching what it raised.

#include "conversion_test_support.hpp"

#include "convert/to_python.hpp"
#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace sarvode::test_support {

using B = kest::internal::class_builder_base;

inline kest::String S(const std::string &text) { return kest::String::fromUtf8(text); }

/// A method entry; `params` names the parameters after the instance.
inline kest::Any method_entry(const char *name, kest::I_Callable_Generic fn, const char *params = "",
                              const char *doc = "") {
  kest::internal::method_builder_base b{S(name)};
  b.assign_func(std::move(fn));
  b.signature(S(params));
  if (*doc)
    b.assign_doc(S(doc));
  return B::method_entry(b);
}

/// A property entry with a getter and an optional setter.
inline kest::Any property_entry(const char *name, kest::I_Callable_Generic getter,
                                kest::I_Callable_Generic setter = {}) {
  kest::internal::property_builder_base p{S(name)};
  p.assign_getter(std::move(getter));
  if (setter)
    p.assign_setter(std::move(setter));
  return B::property_entry(p);
}

/// A new instance of a declared class; a failure fails the test.
inline kest::Any make_instance(const kest::Class_Generic &cls) {
  auto r = kest::internal::result_unwrap_lazy(cls.allocateInstance());
  if (kest::Error::isInstance(r))
    ADD_FAILURE() << "allocation failed: " << message_of(r);
  return r;
}

/// Reads a field of an instance.
inline kest::Any field_of(const kest::Any &self, const char *name) {
  return kest::internal::result_unwrap_lazy(self.fieldValue(kest::meta_field_untyped(name)));
}

inline void set_field(const kest::Any &self, const char *name, const kest::Any &value) {
  auto r = self.setFieldValue(kest::meta_field_untyped(name), value);
  if (r.isError())
    ADD_FAILURE() << "setting field " << name << " failed";
}

/// A thread-safe record of the calls host methods received.
class call_log {
public:
  void add(std::string entry) {
    std::lock_guard guard(m_lock);
    m_entries.push_back(std::move(entry));
  }
  std::vector<std::string> entries() const {
    std::lock_guard guard(m_lock);
    return m_entries;
  }

private:
  mutable std::mutex m_lock;
  std::vector<std::string> m_entries;
};

/// The display text of a host value as UTF-8.
inline std::string shown(const kest::Any &value) { return kest::display(value).toUtf8(); }

/// The str() of a Python object ("" on failure, which is cleared).
inline std::string str_of(PyObject *object) {
  auto text = py::object::steal(PyObject_Str(object));
  if (!text) {
    PyErr_Clear();
    return {};
  }
  return utf8_of(text.get());
}

/// What a snippet raised: the exception object (empty when nothing was raised).
struct raised {
  py::object exception;

  explicit operator bool() const { return static_cast<bool>(exception); }
  /// True when the exception's type is exactly `type`.
  bool is_exactly(PyObject *type) const {
    return exception && reinterpret_cast<PyObject *>(Py_TYPE(exception.get())) == type;
  }
  /// True when the exception is an instance of `type` (or a subclass).
  bool is_a(PyObject *type) const {
    return exception && PyErr_GivenExceptionMatches(exception.get(), type) != 0;
  }
  std::string message() const { return exception ? str_of(exception.get()) : std::string(); }
  std::string type_name() const {
    return exception ? text_attribute(reinterpret_cast<PyObject *>(Py_TYPE(exception.get())), "__name__")
                     : std::string();
  }
};

/// A Python namespace (a globals dictionary) holding host values under names.
/// The caller holds the interpreter lock while using it.
class py_namespace {
public:
  py_namespace() : m_globals(py::object::steal(PyDict_New())) {}

  PyObject *dict() const { return m_globals.get(); }

  /// Stores the Python form of a host value; a failed conversion fails the test.
  void set(const char *name, const kest::Any &value) {
    auto converted = py::object::steal(toPython(value));
    if (!converted) {
      PyErr_Print();
      ADD_FAILURE() << "toPython failed for '" << name << "'";
      return;
    }
    EXPECT_EQ(PyDict_SetItemString(m_globals.get(), name, converted.get()), 0);
  }

  /// Stores a Python object (borrowed).
  void set_object(const char *name, PyObject *object) {
    EXPECT_EQ(PyDict_SetItemString(m_globals.get(), name, object), 0);
  }

  /// The object stored under `name` (a new reference; empty when missing).
  py::object get(const char *name) const {
    return py::object::borrow(PyDict_GetItemString(m_globals.get(), name));
  }

  /// Runs statements that must not raise; a raised exception fails the test.
  bool run(const std::string &code) {
    auto result = py::object::steal(runWithBuiltin("exec", code.c_str(), m_globals.get(), m_globals.get()));
    if (!result) {
      auto error = take_exception();
      ADD_FAILURE() << "Python code raised " << (error ? str_of(reinterpret_cast<PyObject *>(Py_TYPE(error.get()))) : "")
                    << ": " << (error ? str_of(error.get()) : "") << "\n"
                    << code;
      return false;
    }
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    return true;
  }

  /// Evaluates an expression that must not raise (a new reference).
  py::object eval(const std::string &expression) {
    auto result = py::object::steal(runWithBuiltin("eval", expression.c_str(), m_globals.get(), m_globals.get()));
    if (!result) {
      auto error = take_exception();
      ADD_FAILURE() << "Python expression raised " << (error ? str_of(error.get()) : "") << ": " << expression;
    }
    return result;
  }

  /// Evaluates an expression and gives its truth value (false on error, which fails the test).
  bool truth(const std::string &expression) {
    auto result = eval(expression);
    if (!result)
      return false;
    const int r = PyObject_IsTrue(result.get());
    if (r < 0) {
      PyErr_Clear();
      ADD_FAILURE() << "truth value raised: " << expression;
      return false;
    }
    return r == 1;
  }

  /// Evaluates an expression to its str().
  std::string text(const std::string &expression) {
    auto result = eval(expression);
    return result ? str_of(result.get()) : std::string();
  }

  /// Runs statements that are expected to raise and returns what they raised
  /// (the error is cleared). Reports a failure when they did not raise.
  raised run_raising(const std::string &code) {
    auto result = py::object::steal(runWithBuiltin("exec", code.c_str(), m_globals.get(), m_globals.get()));
    if (result) {
      ADD_FAILURE() << "Python code did not raise:\n" << code;
      return {};
    }
    return raised{take_exception()};
  }

private:
  py::object m_globals;
};

} // namespace sarvode::test_support
