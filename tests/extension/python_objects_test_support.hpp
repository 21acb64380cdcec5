#pragma once
// Helpers for the tests of Python objects in the host (CPythonObject,
// CPythonFunction and the proxies): a Python namespace that makes the objects,
// their host wrappers, members called the way a host programmer calls them,
// reference counts read through Python, and the check that no Python error is
// left pending after a member returns.

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "host_object_test_support.hpp"
#include "proxies/cpython_function.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/proxy_classes.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace sarvode::test_support {

/// A Python namespace whose objects a test hands to the host. Each call takes
/// the interpreter lock for itself and gives it back, so that the host members
/// the test calls in between run as they would on a host thread that holds no lock.
class python_scope {
public:
  python_scope() {
    ensurePythonReady();
    py::gil lock;
    m_ns = std::make_unique<py_namespace>();
    m_ns->run("import sys\n");
  }
  ~python_scope() {
    py::gil lock;
    m_ns.reset();
  }
  python_scope(const python_scope&) = delete;
  python_scope& operator=(const python_scope&) = delete;

  /// Runs statements that must not raise.
  bool run(const std::string& code) {
    py::gil lock;
    return m_ns->run(code);
  }
  /// The truth value of an expression.
  bool truth(const std::string& expression) {
    py::gil lock;
    return m_ns->truth(expression);
  }
  /// The str() of an expression.
  std::string text(const std::string& expression) {
    py::gil lock;
    return m_ns->text(expression);
  }
  /// The repr() of an expression.
  std::string repr(const std::string& expression) { return text("repr(" + expression + ")"); }
  /// The Python object of an expression (a new reference).
  py::object object(const std::string& expression) {
    py::gil lock;
    return m_ns->eval(expression);
  }
  /// The host value of an expression: fromPython of its result.
  kest::Any host(const std::string& expression) {
    py::gil lock;
    auto object = m_ns->eval(expression);
    if (!object)
      return {};
    return from_python_checked(object.get());
  }
  /// Stores the Python form of a host value under `name`.
  void set(const char* name, const kest::Any& value) {
    py::gil lock;
    m_ns->set(name, value);
  }
  /// The integer value of an expression.
  long long integer(const std::string& expression) {
    py::gil lock;
    auto object = m_ns->eval(expression);
    return object ? long_of(object.get()) : -1;
  }

private:
  std::unique_ptr<py_namespace> m_ns;
};

/// The host's Python language (the interpreter is started first).
inline kest::I_Language python_language_of_host() {
  ensurePythonReady();
  auto found = kest::find_language(kest::internal::language_name_python());
  EXPECT_TRUE(found.is<kest::I_Language>()) << "no language registered under the Python name";
  return found.as<kest::I_Language>();
}

/// A new wrapper of class `cls` over `object`, made the way conversion makes one.
inline kest::Any wrapper_over(const kest::Class_Generic& cls, const py::object& object) {
  py::gil lock;
  return newPythonWrapper(cls, object.get());
}

/// A wrapper of class `cls` that holds no Python object.
inline kest::Any empty_wrapper(const kest::Class_Generic& cls) {
  return make_instance(cls);
}

/// The Python object a wrapper holds (borrowed; the wrapper keeps it alive).
inline PyObject* held_by(const kest::Any& wrapper) {
  py::gil lock;
  return pythonObjectOf(wrapper);
}

/// True when the value is an instance of `cls` (or of a class derived from it).
inline bool is_of_class(const kest::Any& value, const kest::Class_Generic& cls) {
  return !value.empty() && kest::raw_class_of(value).derivesFrom(cls);
}

/// The class name of a value, for messages.
inline std::string class_name_of(const kest::Any& value) {
  return kest::qualname(kest::raw_class_of(value)).toUtf8();
}

/// Fails the test when a Python error is pending on this thread; clears it.
inline void expect_no_python_error(const std::string& after) {
  py::gil lock;
  EXPECT_EQ(PyErr_Occurred(), nullptr) << "a Python error is pending after " << after;
  PyErr_Clear();
}

/// A result forced to its value.
inline kest::Any value_of(const kest::Any& result) {
  return kest::internal::result_unwrap_lazy(result);
}

/// Calls the member `name` of `self` with `args` (the instance is bound first).
inline kest::Any call_member(const kest::Any& self, const char* name,
                             std::initializer_list<kest::Any> args = {}) {
  auto method = kest::method_of(self, kest::meta_method_untyped(name));
  if (!method.is<kest::I_Callable_Generic>()) {
    ADD_FAILURE() << "no member '" << name << "' on a " << class_name_of(self);
    return {};
  }
  auto bound = method.as<kest::I_Callable_Generic>().bindInstance(self);
  return value_of(bound.callWith(std::span<const kest::Any>(args.begin(), args.size())));
}

/// Calls the meta-method `name` ("$__ownProperties__", ...) declared by the
/// class of `self`, with the instance first.
inline kest::Any call_meta(const kest::Any& self, const char* name,
                           std::initializer_list<kest::Any> args = {}) {
  auto method = kest::raw_method_of(self, kest::meta_method_untyped(name));
  if (!method.is<kest::I_Callable_Generic>()) {
    ADD_FAILURE() << "no meta-method '" << name << "' on a " << class_name_of(self);
    return {};
  }
  std::vector<kest::Any> full{self};
  full.insert(full.end(), args.begin(), args.end());
  return value_of(method.as<kest::I_Callable_Generic>().callWith(full));
}

/// A host map as a host programmer holds one: the reading members of I_Map
/// and the writing members of I_MutableMap on one value.
struct host_map {
  kest::Any value;

  explicit host_map(kest::Any v) : value(std::move(v)) {
    EXPECT_TRUE(kest::I_MutableMap::isInstance(value)) << class_name_of(value);
  }
  kest::I_Map reading() const { return kest::I_Map::unsafeFrom(value); }
  kest::I_MutableMap writing() const { return kest::I_MutableMap::unsafeFrom(value); }
  kest::Result<kest::Any> get(const kest::Any& key) const { return reading().get(key); }
  kest::Result<kest::Any> contains(const kest::Any& key) const { return reading().contains(key); }
  kest::Result<kest::Any> keys() const { return reading().keys(); }
  kest::Result<kest::Any> values() const { return reading().values(); }
  kest::Result<kest::Integer> length() const { return reading().length(); }
  kest::Type keysType() const { return reading().keysType(); }
  kest::Type valuesType() const { return reading().valuesType(); }
  kest::Result<kest::None> setChecked(const kest::Any& key, const kest::Any& v) const {
    return writing().setChecked(key, v);
  }
  kest::Result<kest::Any> remove(const kest::Any& key) const { return writing().remove(key); }
  kest::Result<kest::None> clear() const { return writing().clear(); }
};

/// A host sequence with the members of I_Sequence and I_MutableSequence.
struct host_sequence {
  kest::Any value;

  explicit host_sequence(kest::Any v) : value(std::move(v)) {
    EXPECT_TRUE(kest::I_MutableSequence::isInstance(value)) << class_name_of(value);
  }
  kest::I_Sequence reading() const { return kest::I_Sequence::unsafeFrom(value); }
  kest::I_MutableSequence writing() const { return kest::I_MutableSequence::unsafeFrom(value); }
  kest::Result<kest::Integer> length() const { return reading().length(); }
  kest::Result<kest::Any> at(std::int64_t index) const { return reading().at(index); }
  kest::Result<kest::Any> indexOf(const kest::Any& v) const { return reading().indexOf(v); }
  kest::Result<kest::Any> contains(const kest::Any& v) const {
    return kest::I_Iterable::unsafeFrom(value).contains(v);
  }
  kest::Result<kest::None> append(const kest::Any& v) const { return writing().append(v); }
  kest::Result<kest::None> appendAt(std::int64_t index, const kest::Any& v) const {
    return writing().appendAt(index, v);
  }
  kest::Result<kest::None> set(std::int64_t index, const kest::Any& v) const {
    return writing().set(index, v);
  }
  kest::Result<kest::None> extend(const kest::Any& iterable) const {
    return writing().extend(iterable);
  }
  kest::Result<kest::Any> pop() const { return writing().pop(); }
  kest::Result<kest::Any> removeAt(std::int64_t index) const { return writing().removeAt(index); }
  kest::Result<kest::Any> removeOne(const kest::Any& v) const { return writing().removeOne(v); }
  kest::Result<kest::None> clear() const { return writing().clear(); }
};

/// A host set with the members of I_Set and I_MutableSet.
struct host_set {
  kest::Any value;

  explicit host_set(kest::Any v) : value(std::move(v)) {
    EXPECT_TRUE(kest::I_MutableSet::isInstance(value)) << class_name_of(value);
  }
  kest::I_Set reading() const { return kest::I_Set::unsafeFrom(value); }
  kest::I_MutableSet writing() const { return kest::I_MutableSet::unsafeFrom(value); }
  kest::Result<kest::Integer> length() const { return reading().length(); }
  kest::Result<kest::Any> contains(const kest::Any& v) const { return reading().contains(v); }
  kest::Result<kest::Any> insert(const kest::Any& v) const { return writing().insert(v); }
  kest::Result<kest::Any> remove(const kest::Any& v) const { return writing().remove(v); }
  kest::Result<kest::None> extend(const kest::Any& iterable) const {
    return writing().extend(iterable);
  }
  kest::Result<kest::None> clear() const { return writing().clear(); }
};

/// The Integer value of a host value; fails the test for anything else.
inline std::int64_t host_integer(const kest::Any& value) {
  if (!kest::Integer::isInstance(value)) {
    ADD_FAILURE() << "not an Integer: " << class_name_of(value) << " (" << message_of(value) << ")";
    return -999;
  }
  return kest::Integer::unsafeFrom(value).value();
}

/// The Boolean value of a host value; fails the test for anything else.
inline bool host_boolean(const kest::Any& value) {
  if (!kest::Boolean::isInstance(value)) {
    ADD_FAILURE() << "not a Boolean: " << class_name_of(value) << " (" << message_of(value) << ")";
    return false;
  }
  return kest::Boolean::unsafeFrom(value).value();
}

/// The text of a host String; fails the test for anything else.
inline std::string host_text(const kest::Any& value) {
  if (!kest::String::isInstance(value)) {
    ADD_FAILURE() << "not a String: " << class_name_of(value) << " (" << message_of(value) << ")";
    return {};
  }
  return kest::String::unsafeFrom(value).toUtf8();
}

/// The integers of a host sequence, in order; fails the test for anything else.
inline std::vector<std::int64_t> host_integers(const kest::Any& sequence) {
  std::vector<std::int64_t> out;
  if (!kest::I_Iterable::isInstance(sequence)) {
    ADD_FAILURE() << "not iterable: " << class_name_of(sequence) << " (" << message_of(sequence)
                  << ")";
    return out;
  }
  kest::internal::iterator_iterable it(sequence), end;
  for (; it != end; ++it)
    out.push_back(host_integer(*it));
  EXPECT_TRUE(it.error().empty()) << message_of(it.error());
  return out;
}

/// The texts of a host sequence, in order.
inline std::vector<std::string> host_texts(const kest::Any& sequence) {
  std::vector<std::string> out;
  if (!kest::I_Iterable::isInstance(sequence)) {
    ADD_FAILURE() << "not iterable: " << class_name_of(sequence) << " (" << message_of(sequence)
                  << ")";
    return out;
  }
  kest::internal::iterator_iterable it(sequence), end;
  for (; it != end; ++it)
    out.push_back(host_text(*it));
  EXPECT_TRUE(it.error().empty()) << message_of(it.error());
  return out;
}

/// The reference count of a Python object as `sys.getrefcount` reports it
/// (one more than the owners, for the argument). Takes the lock.
inline Py_ssize_t python_refcount(PyObject* object) {
  py::gil lock;
  auto sys = py::object::steal(PyImport_ImportModule("sys"));
  auto getrefcount =
      sys ? py::object::steal(PyObject_GetAttrString(sys.get(), "getrefcount")) : py::object();
  auto count =
      getrefcount
          ? py::object::steal(PyObject_CallFunctionObjArgs(getrefcount.get(), object, nullptr))
          : py::object();
  if (!count) {
    PyErr_Clear();
    ADD_FAILURE() << "sys.getrefcount failed";
    return -1;
  }
  return static_cast<Py_ssize_t>(long_of(count.get()));
}

/// A Python object's str(), with the lock taken.
inline std::string python_str(const py::object& object) {
  py::gil lock;
  return str_of(object.get());
}

} // namespace sarvode::test_support
