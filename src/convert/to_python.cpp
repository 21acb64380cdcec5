// Host values into Python. The decision order is fixed: the first step that
// applies decides.
//
// Every non-null result is a new reference, the None, True, False and
// NotImplemented singletons included, so that callers follow one ownership rule.

#include "convert/to_python.hpp"

#include "convert/python_classes.hpp"
#include "convert/type_mapping.hpp"
#include "language/exception_types.hpp"
#include "proxies/cpython_object.hpp"
#include "pyobject/kest_object.hpp"

#include <kest/kest.hpp>

#include <fmt/format.h>

namespace sarvode {

namespace {
PyObject *new_ref(PyObject *singleton) {
  Py_IncRef(singleton);
  return singleton;
}

PyObject *call(PyObject *callable, py::object args, py::object kwargs = {}) {
  if (!callable || !args)
    return nullptr;
  return PyObject_Call(callable, args.get(), kwargs.get());
}

/// Raises `type` with the whole message (a C string would end at a null character).
void set_message(PyObject *type, const std::string &message) {
  auto text = py::object::steal(PyUnicode_FromStringAndSize(message.data(), static_cast<Py_ssize_t>(message.size())));
  if (text)
    PyErr_SetObject(type, text.get());
}

PyObject *fold_kwargs(const kest::Time &t) { return Py_BuildValue("{s:i}", "fold", t.fold() ? 1 : 0); }

PyObject *instance_to_python(const kest::Any &value) {
  if (isPythonBacked(value)) {
    PyObject *object = pythonObjectOf(value);
    if (object)
      Py_IncRef(object);
    return object; // null without an exception when it holds none
  }
  if (kest::Date::isInstance(value)) {
    auto d = kest::Date::unsafeFrom(value);
    if (!python_classes::date())
      return nullptr;
    return PyObject_CallFunction(python_classes::date(), "iii", d.year(), static_cast<int>(d.month()),
                                 static_cast<int>(d.day()));
  }
  if (kest::Decimal::isInstance(value)) {
    if (!python_classes::decimal())
      return nullptr;
    return PyObject_CallFunction(python_classes::decimal(), "s", kest::Decimal::unsafeFrom(value).toUtf8().c_str());
  }
  if (kest::Error::isInstance(value)) {
    raiseHostError(value);
    return nullptr;
  }
  if (kest::Time::isInstance(value)) {
    auto t = kest::Time::unsafeFrom(value);
    auto args = py::object::steal(Py_BuildValue("(iiii)", t.hour(), t.minute(), t.second(),
                                                static_cast<int>(t.nanoSeconds() / 1000)));
    auto kwargs = py::object::steal(fold_kwargs(t));
    if (!args || !kwargs || !python_classes::time()) {
      PyErr_Clear();
      return nullptr;
    }
    return call(python_classes::time(), std::move(args), std::move(kwargs));
  }
  if (kest::DateTime::isInstance(value)) {
    auto dt = kest::DateTime::unsafeFrom(value);
    auto d = dt.date();
    auto t = dt.time();
    // No time zone is passed: the result is always a naive datetime.
    auto args = py::object::steal(Py_BuildValue("(iiiiiii)", d.year(), static_cast<int>(d.month()),
                                                static_cast<int>(d.day()), t.hour(), t.minute(), t.second(),
                                                static_cast<int>(t.nanoSeconds() / 1000)));
    auto kwargs = py::object::steal(fold_kwargs(t));
    if (!args || !kwargs || !python_classes::datetime()) {
      PyErr_Clear();
      return nullptr;
    }
    return call(python_classes::datetime(), std::move(args), std::move(kwargs));
  }
  return wrapKestObjectLocked(value);
}

PyObject *tuple_to_python(const kest::Tuple &tuple) {
  const auto items = tuple.items();
  const auto n = static_cast<Py_ssize_t>(items.size());
  auto result = py::object::steal(PyTuple_New(n > 0 ? n : 0));
  if (!result)
    return nullptr;
  for (Py_ssize_t i = 0; i < n; ++i) {
    PyObject *item = toPythonLocked(items[static_cast<std::size_t>(i)]);
    if (!item)
      return nullptr; // the element's exception stays set; the partial tuple is released
    if (PyTuple_SetItem(result.get(), i, item) < 0) // steals the item
      return nullptr;
  }
  return result.release();
}
} // namespace

PyObject *toPython(const kest::Any &value) {
  py::gil lock;
  return toPythonLocked(value);
}

PyObject *toPythonLocked(const kest::Any &value) {
  if (value.empty())
    return new_ref(Py_None);
  using kind = kest::internal::ObjectType;
  const auto k = value.kind();
  if (static_cast<int>(k) > 17)
    return wrapKestObjectLocked(value);
  switch (k) {
  case kind::Boolean:
    return new_ref(value.get() == kest::internal::g_value_boolean_true ? Py_True : Py_False);
  case kind::ByteArray: {
    auto bytes = kest::ByteArray::unsafeFrom(value).asChars();
    return PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size()));
  }
  case kind::Class: {
    auto cls = kest::Class_Generic::unsafeFrom(value);
    if (PyObject *type = pythonTypeOfClass(cls))
      return new_ref(type);
    // An error class is the exception type that stands for it, so that
    // Python code can catch host errors by their class.
    if (cls.derivesFrom(kest::Error::getClass())) {
      PyObject *type = exceptionTypeFor(cls);
      return type ? new_ref(type) : nullptr;
    }
    return wrapKestObjectLocked(value);
  }
  case kind::Float:
    return PyFloat_FromDouble(kest::internal::float_value_of(value));
  case kind::Instance:
    return instance_to_python(value);
  case kind::Integer: {
    const auto i = kest::internal::integer_parts_of(value);
    return i.is_signed ? PyLong_FromLongLong(static_cast<std::int64_t>(i.bits)) : PyLong_FromUnsignedLongLong(i.bits);
  }
  case kind::String: {
    auto text = kest::internal::string_utf8_of(value);
    return PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size()));
  }
  case kind::Tuple:
    return tuple_to_python(kest::Tuple::unsafeFrom(value));
  case kind::External:
    return toPythonLocked(kest::internal::object_value_external::load(value));
  case kind::None:
    return new_ref(Py_None);
  case kind::NotImplemented:
    return new_ref(Py_NotImplemented);
  default:
    // Callables, lists, maps, sets, computed values and weak references are
    // wrapped as they are, not evaluated or resolved here.
    return wrapKestObjectLocked(value);
  }
}

namespace {
/// What Python shows of a host error: its message, never an empty text.
std::string message_of(const kest::Error &error, const kest::Class_Generic &cls) {
  auto message = error.message().toUtf8();
  if (message.empty())
    message = fmt::format("A host error of class '{}' that gave no message.", kest::qualname(cls).utf8View());
  return message;
}
/// A plain host error is a RuntimeError with its message in Python. It is
/// marked with the host's own message, so that it comes back to the host as
/// the host error it was, not as a failure of the Python code.
void raise_plain_host_error(const std::string &shown, const kest::String &original) {
  auto text = py::object::steal(PyUnicode_FromStringAndSize(shown.data(), static_cast<Py_ssize_t>(shown.size())));
  auto instance = py::object::steal(text ? PyObject_CallFunctionObjArgs(PyExc_RuntimeError, text.get(), nullptr)
                                         : nullptr);
  if (!instance)
    return;
  const auto utf8 = original.utf8View();
  auto marker = py::object::steal(PyUnicode_FromStringAndSize(utf8.data(), static_cast<Py_ssize_t>(utf8.size())));
  if (!marker || PyObject_SetAttrString(instance.get(), plain_host_error_marker, marker.get()) < 0)
    PyErr_Clear(); // it still goes up, as a RuntimeError of Python's
  PyErr_SetObject(PyExc_RuntimeError, instance.get());
}
} // namespace

void raiseHostError(const kest::Any &value) {
  py::gil lock;
  auto error = kest::Error::unsafeFrom(value);
  auto cls = kest::raw_class_of(error);
  const auto message = message_of(error, cls);
  if (cls.isSame(kest::Error::getClass()) && !error.cause()) {
    raise_plain_host_error(message, error.message());
    return;
  }
  PyObject *type = exceptionTypeFor(cls);
  if (!type) {
    PyErr_Clear();
    set_message(PyExc_RuntimeError, message);
    return;
  }
  auto empty = py::object::steal(PyTuple_New(0));
  auto instance = py::object::steal(empty ? PyObject_CallObject(type, empty.get()) : nullptr);
  if (!instance) {
    PyErr_Clear();
    set_message(type, message);
    return;
  }
  auto wrapper = py::object::steal(wrapKestObject(error));
  if (!wrapper || PyObject_SetAttrString(instance.get(), "kest", wrapper.get()) < 0)
    PyErr_Clear(); // the exception still goes up, without the host error attached
  // Made without arguments, it gets the message as its one argument after:
  // str(e) is the message, and a traceback ends "kest.demo.DemoError: boom".
  auto text = py::object::steal(PyUnicode_FromStringAndSize(message.data(), static_cast<Py_ssize_t>(message.size())));
  auto args = py::object::steal(text ? PyTuple_Pack(1, text.get()) : nullptr);
  if (!args || PyObject_SetAttrString(instance.get(), "args", args.get()) < 0)
    PyErr_Clear();
  PyErr_SetObject(type, instance.get());
}

} // namespace sarvode
