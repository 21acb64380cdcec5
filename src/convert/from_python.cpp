// Python objects into host values. The tests run in a fixed order; the first
// that matches decides.

#include "convert/from_python.hpp"

#include "convert/python_classes.hpp"
#include "convert/type_mapping.hpp"
#include "language/python_error.hpp"
#include "proxies/cpython_function.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/proxy_classes.hpp"
#include "pyobject/kest_object.hpp"

#include <kest/kest.hpp>

#include <cmath>
#include <limits>

namespace sarvode {

namespace {
/// The pending Python error as a host error, or `fallback` when none is pending.
kest::Any error_or(const char16_t *fallback) {
  auto pending = currentPythonError();
  if (pending.is<kest::Error>())
    return pending;
  PyErr_Clear();
  return kest::Error(kest::String(fallback));
}

bool is_instance_of(PyObject *object, PyObject *type) {
  if (!type)
    return false;
  const int r = PyObject_IsInstance(object, type);
  if (r < 0)
    PyErr_Clear();
  return r > 0;
}

long long_attribute(PyObject *object, const char *name) {
  auto value = py::object::steal(PyObject_GetAttrString(object, name));
  if (!value) {
    PyErr_Clear();
    return 0;
  }
  const long v = PyLong_AsLong(value.get());
  if (v == -1 && PyErr_Occurred()) {
    PyErr_Clear();
    return 0;
  }
  return v;
}

kest::Date date_of(PyObject *object) {
  return kest::Date(static_cast<std::int32_t>(long_attribute(object, "year")),
                    static_cast<std::uint8_t>(long_attribute(object, "month")),
                    static_cast<std::uint8_t>(long_attribute(object, "day")));
}

kest::String text_of(PyObject *text) { return kest::String::fromUtf8(py::utf8(text)); }

kest::Time time_of(PyObject *object) {
  const int hour = static_cast<int>(long_attribute(object, "hour"));
  const int minute = static_cast<int>(long_attribute(object, "minute"));
  const int second = static_cast<int>(long_attribute(object, "second"));
  const int microsecond = static_cast<int>(long_attribute(object, "microsecond"));
  const bool fold = long_attribute(object, "fold") != 0;
  auto offset = py::object::steal(PyObject_CallMethod(object, "utcoffset", nullptr));
  if (!offset || offset.get() == Py_None) {
    PyErr_Clear();
    // A naive value.
    return kest::Time::fromNanoseconds(hour, minute, second, static_cast<std::uint32_t>(microsecond) * 1000u, {},
                                       {}, fold);
  }
  auto seconds = py::object::steal(PyObject_CallMethod(offset.get(), "total_seconds", nullptr));
  double whole = 0;
  if (seconds) {
    const double total = PyFloat_AsDouble(seconds.get());
    std::modf(total, &whole);
  }
  PyErr_Clear();
  auto zone = py::object::steal(PyObject_CallMethod(object, "tzname", nullptr));
  kest::String zone_name;
  if (zone && PyUnicode_Check(zone.get()))
    zone_name = text_of(zone.get());
  PyErr_Clear();
  return kest::Time(hour, minute, second, microsecond, static_cast<std::int32_t>(whole), zone_name, fold);
}

/// Truncates like the processor does: no range check, so infinities and values
/// beyond the 64-bit range give the smallest 64-bit integer.
std::int64_t truncate_unchecked(double d) {
  constexpr double limit = 9223372036854775808.0; // 2^63
  if (!(d >= -limit && d < limit))
    return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(d);
}

/// Python containers and other objects without a natural host form stay in
/// Python behind a live wrapper, the most specific that fits (16, 17a-d).
kest::Any wrap(PyObject *object) {
  if (PyDict_Check(object))
    return newPythonWrapper(cpythonProxyMappingClass(), object);
  if (PySequence_Check(object))
    return newPythonWrapper(cpythonProxySequenceClass(), object);
  if (PyObject_TypeCheck(object, &PySet_Type))
    return newPythonWrapper(cpythonProxySetClass(), object);
  if (auto iterator = py::object::steal(PyObject_GetIter(object)))
    return newPythonWrapper(cpythonProxyIterableClass(), object);
  PyErr_Clear();
  return newCPythonObject(object);
}

} // namespace

kest::Any int64OutOfRange() { return error_or(u"Unable to convert Python integer to int64."); }

void fromPythonInto(kest::Any &slot, PyObject *object) {
  std::int64_t value = 0;
  if (!object || !PyLong_CheckExact(object))
    slot = fromPython(object);
  else if (int64Of(object, value))
    kest::internal::assign_integer(slot, value);
  else
    slot = int64OutOfRange();
}

kest::Any fromPython(PyObject *object) {
  // 1. Nothing (checked first: the tests below read the object's type).
  if (!object || object == Py_None)
    return {};
  // Exact ints and strs can match no other test (they are no bool, bytes,
  // Decimal, float, exception, type or callable): decide them at once.
  if (PyLong_CheckExact(object)) {
    std::int64_t value = 0;
    if (!int64Of(object, value))
      return int64OutOfRange();
    return kest::Integer(value);
  }
  if (PyUnicode_CheckExact(object)) {
    Py_ssize_t size = 0;
    if (const char *utf8 = PyUnicode_AsUTF8AndSize(object, &size))
      return kest::String::fromUtf8(std::string_view(utf8, static_cast<std::size_t>(size)));
    PyErr_Clear();
    return kest::String(); // a str that has no UTF-8 form (lone surrogates) gives the empty String
  }
  // 2. The not-implemented marker.
  if (object == Py_NotImplemented)
    return kest::Undefined();
  // 3. A host value that travelled through Python comes back as itself.
  if (isKestObject(object)) {
    if (auto value = kestObjectValue(object))
      return value;
  }
  // 4. Exactly bool, before the integer test.
  if (object == Py_True || object == Py_False)
    return kest::Boolean(object == Py_True);
  // 5-6. Bytes.
  if (PyByteArray_Check(object))
    return kest::ByteArray(PyByteArray_AsString(object), static_cast<std::size_t>(PyByteArray_Size(object)));
  if (PyBytes_Check(object))
    return kest::ByteArray(PyBytes_AsString(object), static_cast<std::size_t>(PyBytes_Size(object)));
  // 7. Decimals through their text, so that every digit is kept (a float is
  // never one: it goes on without the test).
  if (!PyFloat_Check(object) && is_instance_of(object, python_classes::decimal_if_imported())) {
    auto text = py::object::steal(PyObject_Str(object));
    if (!text || !PyUnicode_Check(text.get()))
      return error_or(u"Unable to convert Python decimal to string.");
    auto parsed = kest::Decimal::fromString(text_of(text.get()));
    return kest::internal::result_unwrap_lazy(parsed);
  }
  // 8. A float with no fractional part becomes an integer.
  if (PyFloat_Check(object)) {
    const double d = PyFloat_AsDouble(object);
    double whole = 0;
    if (!std::isnan(d) && std::modf(d, &whole) == 0.0)
      return kest::Integer(truncate_unchecked(d));
    return kest::Float(d);
  }
  // 9. Numbers: as 64-bit integers; bigger ones are an overflow error.
  if (PyNumber_Check(object)) {
    auto number = py::object::steal(PyNumber_Long(object));
    if (!number)
      return error_or(u"Unable to convert Python number to integer.");
    const long long value = PyLong_AsLongLong(number.get());
    if (value == -1 && PyErr_Occurred())
      return error_or(u"Unable to convert Python integer to int64.");
    return kest::Integer(static_cast<std::int64_t>(value));
  }
  // 10. Exceptions.
  if (is_instance_of(object, PyExc_Exception))
    return errorFromException(object);
  // 11. Types.
  if (PyType_Check(object))
    return typeFromPython(object);
  // 12. Callables.
  if (PyCallable_Check(object))
    return newCPythonFunction(object);
  // 13. Text.
  if (PyUnicode_Check(object))
    return text_of(object); // a str that has no UTF-8 form gives the empty String
  // 14. Dates and times; datetime before date, since every datetime is a date.
  // All three classes come from one module: without it, none is asked for.
  if (PyObject *datetime = python_classes::datetime_if_imported()) {
    if (is_instance_of(object, datetime))
      return kest::DateTime(date_of(object), time_of(object));
    if (is_instance_of(object, python_classes::time_if_imported()))
      return time_of(object);
    if (is_instance_of(object, python_classes::date_if_imported()))
      return date_of(object);
  }
  // 16-17. Containers and every other object stay in Python, behind a wrapper.
  return wrap(object);
}

} // namespace sarvode
