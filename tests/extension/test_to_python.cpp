// Host values into Python: toPython and the raising of host errors.

#include "conversion_test_support.hpp"

#include "convert/to_python.hpp"
#include "convert/type_mapping.hpp"
#include "language/exception_types.hpp"
#include "proxies/cpython_object.hpp"
#include "pyobject/kest_object.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <stdexcept>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
/// Python 3.12 made None, True, False and NotImplemented immortal: their
/// reference counts no longer move, so an increment cannot be observed there.
bool singleton_counts_move() { return Py_Version < 0x030C0000; }

/// Converts and checks that a non-null result comes without a pending error.
py::object to_py(const kest::Any &value) {
  auto result = py::object::steal(toPython(value));
  if (result) {
    EXPECT_EQ(PyErr_Occurred(), nullptr) << "toPython returned an object and left an error pending";
  }
  return result;
}

/// Counts one reference per conversion of `value` into `singleton`.
void expect_new_reference_per_call(const kest::Any &value, PyObject *singleton) {
  const Py_ssize_t before = Py_REFCNT(singleton);
  PyObject *first = toPython(value);
  PyObject *second = toPython(value);
  ASSERT_EQ(first, singleton);
  ASSERT_EQ(second, singleton);
  if (singleton_counts_move()) {
    EXPECT_EQ(Py_REFCNT(singleton), before + 2);
  }
  Py_DecRef(first);
  Py_DecRef(second);
  if (singleton_counts_move()) {
    EXPECT_EQ(Py_REFCNT(singleton), before);
  }
}

/// A class derived from Error, declared in a module of its own.
kest::Class_Generic declare_error_class(const char *module, const char *name) {
  using B = kest::internal::class_builder_base;
  return declare_class({B::name_entry(kest::String::fromUtf8(name)), B::base_entry(kest::Error::getClass()),
                        B::module_entry(kest::String::fromUtf8(module))});
}

/// The "kest" attribute of an exception instance (new reference; empty when missing).
py::object kest_attribute(PyObject *exception) {
  auto attribute = py::object::steal(PyObject_GetAttrString(exception, "kest"));
  if (!attribute)
    PyErr_Clear();
  return attribute;
}
} // namespace

// --- None and the singletons ---------------------------------------------------

TEST(ToPython, AnEmptyHandleGivesNone) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::Any());
  EXPECT_EQ(result.get(), Py_None);
}

TEST(ToPython, HostNoneGivesNone) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::None());
  EXPECT_EQ(result.get(), Py_None);
}

TEST(ToPython, EveryNoneResultIsANewReference) {
  ensurePythonReady();
  py::gil lock;
  if (!singleton_counts_move())
    GTEST_SKIP() << "None is immortal in this Python; its reference count does not move";
  expect_new_reference_per_call(kest::Any(), Py_None);
  expect_new_reference_per_call(kest::None(), Py_None);
}

TEST(ToPython, BooleansAndUndefinedAreNewReferencesToTheSingletons) {
  ensurePythonReady();
  py::gil lock;
  if (!singleton_counts_move())
    GTEST_SKIP() << "the singletons are immortal in this Python; their reference counts do not move";
  expect_new_reference_per_call(kest::Boolean(true), Py_True);
  expect_new_reference_per_call(kest::Boolean(false), Py_False);
  expect_new_reference_per_call(kest::Undefined(), Py_NotImplemented);
}

TEST(ToPython, BooleansAndUndefinedGiveTheSingletons) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_EQ(to_py(kest::Boolean(true)).get(), Py_True);
  EXPECT_EQ(to_py(kest::Boolean(false)).get(), Py_False);
  EXPECT_EQ(to_py(kest::Undefined()).get(), Py_NotImplemented);
}

// --- Bytes ---------------------------------------------------------------------

TEST(ToPython, AnEmptyByteArrayGivesEmptyBytes) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::ByteArray());
  ASSERT_TRUE(result);
  EXPECT_TRUE(PyBytes_CheckExact(result.get()));
  EXPECT_EQ(PyBytes_Size(result.get()), 0);
}

TEST(ToPython, AByteArrayIsAlwaysExactlyBytes) {
  ensurePythonReady();
  py::gil lock;
  const char data[] = {'a', '\0', 'b', '\xff'};
  auto result = to_py(kest::ByteArray(data, sizeof data));
  ASSERT_TRUE(result);
  EXPECT_TRUE(PyBytes_CheckExact(result.get()));
  EXPECT_FALSE(PyByteArray_Check(result.get()));
  EXPECT_TRUE(python_equals_expression(result.get(), "b'a\\x00b\\xff'"));
}

// --- Numbers -------------------------------------------------------------------

TEST(ToPython, AnUnsignedMaximumGivesThePositivePythonInt) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max()));
  ASSERT_TRUE(result);
  ASSERT_TRUE(PyLong_Check(result.get()));
  EXPECT_EQ(PyLong_AsUnsignedLongLong(result.get()), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  EXPECT_TRUE(python_equals_expression(result.get(), "2**64 - 1"));
}

TEST(ToPython, ASignedMinusOneGivesMinusOne) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::Integer(-1));
  ASSERT_TRUE(result);
  EXPECT_EQ(long_of(result.get()), -1);
}

TEST(ToPython, SignedExtremesKeepTheirValues) {
  ensurePythonReady();
  py::gil lock;
  auto low = to_py(kest::Integer(std::numeric_limits<std::int64_t>::min()));
  auto high = to_py(kest::Integer(std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(long_of(low.get()), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(long_of(high.get()), std::numeric_limits<std::int64_t>::max());
}

TEST(ToPython, AFloatGivesAPythonFloat) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::Float(2.75));
  ASSERT_TRUE(result);
  ASSERT_TRUE(PyFloat_Check(result.get()));
  EXPECT_EQ(PyFloat_AsDouble(result.get()), 2.75);
}

// --- Text ----------------------------------------------------------------------

TEST(ToPython, AStringGivesTheSameCodePoints) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::String(u"a\u00e9\U0001F600"));
  ASSERT_TRUE(result);
  ASSERT_TRUE(PyUnicode_Check(result.get()));
  EXPECT_EQ(PyUnicode_GetLength(result.get()), 3);
  EXPECT_EQ(PyUnicode_ReadChar(result.get(), 2), 0x1F600u);
}

// --- Dates and times -----------------------------------------------------------

TEST(ToPython, TimeTruncatesNanosecondsToMicroseconds) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::Time::fromNanoseconds(23, 59, 59, 999'999'999));
  ASSERT_TRUE(result);
  EXPECT_TRUE(has_exact_type(result.get(), "__import__('datetime').time"));
  EXPECT_TRUE(python_equals_expression(result.get(), "__import__('datetime').time(23, 59, 59, 999999)"));
  auto micro = py::object::steal(PyObject_GetAttrString(result.get(), "microsecond"));
  EXPECT_EQ(long_of(micro.get()), 999999);
}

TEST(ToPython, TimeCarriesItsFold) {
  ensurePythonReady();
  py::gil lock;
  auto folded = to_py(kest::Time::fromNanoseconds(1, 30, 0, 0, {}, {}, true));
  auto unfolded = to_py(kest::Time::fromNanoseconds(1, 30, 0, 0));
  ASSERT_TRUE(folded);
  ASSERT_TRUE(unfolded);
  auto fold = py::object::steal(PyObject_GetAttrString(folded.get(), "fold"));
  auto no_fold = py::object::steal(PyObject_GetAttrString(unfolded.get(), "fold"));
  EXPECT_EQ(long_of(fold.get()), 1);
  EXPECT_EQ(long_of(no_fold.get()), 0);
}

TEST(ToPython, DateTimeCarriesItsFold) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::DateTime(kest::Date(2021, 11, 7), kest::Time::fromNanoseconds(1, 30, 0, 0, {}, {}, true)));
  ASSERT_TRUE(result);
  auto fold = py::object::steal(PyObject_GetAttrString(result.get(), "fold"));
  EXPECT_EQ(long_of(fold.get()), 1);
}

TEST(ToPython, ADateTimeIsNaive) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::DateTime(kest::Date(2020, 1, 2), kest::Time(3, 4, 5, 6)));
  ASSERT_TRUE(result);
  EXPECT_TRUE(has_exact_type(result.get(), "__import__('datetime').datetime"));
  EXPECT_TRUE(python_equals_expression(result.get(), "__import__('datetime').datetime(2020, 1, 2, 3, 4, 5, 6)"));
  auto tz = py::object::steal(PyObject_GetAttrString(result.get(), "tzinfo"));
  EXPECT_EQ(tz.get(), Py_None);
}

TEST(ToPython, AnAwareDateTimeStillGivesANaiveDatetime) {
  ensurePythonReady();
  py::gil lock;
  auto aware = kest::Time(10, 0, 0, 0, 19800, kest::String(u"IST"));
  ASSERT_TRUE(aware.offsetSeconds().has_value());
  auto result = to_py(kest::DateTime(kest::Date(2020, 1, 2), aware));
  ASSERT_TRUE(result);
  auto tz = py::object::steal(PyObject_GetAttrString(result.get(), "tzinfo"));
  EXPECT_EQ(tz.get(), Py_None);
  // The wall-clock fields stay as they were.
  EXPECT_TRUE(python_equals_expression(result.get(), "__import__('datetime').datetime(2020, 1, 2, 10, 0, 0)"));
}

TEST(ToPython, ADateGivesADatetimeDate) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::Date(1999, 12, 31));
  ASSERT_TRUE(result);
  EXPECT_TRUE(has_exact_type(result.get(), "__import__('datetime').date"));
  EXPECT_TRUE(python_equals_expression(result.get(), "__import__('datetime').date(1999, 12, 31)"));
}

TEST(ToPython, ADatePythonCannotHoldGivesNullWithValueError) {
  ensurePythonReady();
  py::gil lock;
  PyObject *result = toPython(kest::Date(10000, 1, 1));
  EXPECT_EQ(result, nullptr);
  ASSERT_NE(PyErr_Occurred(), nullptr);
  EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_ValueError));
  PyErr_Clear();
}

// --- Tuples --------------------------------------------------------------------

TEST(ToPython, AnEmptyTupleGivesAnEmptyTuple) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::Tuple());
  ASSERT_TRUE(result);
  EXPECT_TRUE(PyTuple_CheckExact(result.get()));
  EXPECT_EQ(PyTuple_Size(result.get()), 0);
}

TEST(ToPython, ATupleConvertsEachElement) {
  ensurePythonReady();
  py::gil lock;
  auto result = to_py(kest::Tuple{kest::Integer(1), kest::String(u"two"), kest::None()});
  ASSERT_TRUE(result);
  EXPECT_TRUE(python_equals_expression(result.get(), "(1, 'two', None)"));
}

TEST(ToPython, ATupleHoldingAnErrorGivesNullWithTheErrorRaised) {
  ensurePythonReady();
  py::gil lock;
  PyObject *result = toPython(kest::Tuple{kest::Integer(1), kest::Error("inside")});
  EXPECT_EQ(result, nullptr);
  ASSERT_NE(PyErr_Occurred(), nullptr);
  EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_RuntimeError));
  auto exception = take_exception();
  auto text = py::object::steal(PyObject_Str(exception.get()));
  EXPECT_EQ(utf8_of(text.get()), "inside");
}

// --- Errors --------------------------------------------------------------------

TEST(ToPython, APlainErrorIsRaisedAsRuntimeErrorWithItsMessage) {
  ensurePythonReady();
  py::gil lock;
  PyObject *result = toPython(kest::Error("plain failure"));
  EXPECT_EQ(result, nullptr);
  ASSERT_NE(PyErr_Occurred(), nullptr);
  auto exception = take_exception();
  ASSERT_TRUE(exception);
  EXPECT_EQ(reinterpret_cast<PyObject *>(Py_TYPE(exception.get())), PyExc_RuntimeError);
  auto text = py::object::steal(PyObject_Str(exception.get()));
  EXPECT_EQ(utf8_of(text.get()), "plain failure");
  EXPECT_FALSE(kest_attribute(exception.get()));
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST(ToPython, AnErrorWithACauseIsRaisedAsRuntimeErrorWithItsMessageCarryingIt) {
  ensurePythonReady();
  py::gil lock;
  kest::Error error("with a cause");
  error.setCause(std::make_exception_ptr(std::runtime_error("x")));
  PyObject *result = toPython(error);
  EXPECT_EQ(result, nullptr);
  ASSERT_NE(PyErr_Occurred(), nullptr);
  auto exception = take_exception();
  ASSERT_TRUE(exception);
  EXPECT_EQ(reinterpret_cast<PyObject *>(Py_TYPE(exception.get())), PyExc_RuntimeError);
  auto args = py::object::steal(PyObject_GetAttrString(exception.get(), "args"));
  ASSERT_TRUE(args);
  ASSERT_TRUE(PyTuple_Check(args.get()));
  // Made without arguments, then given the message as its only one.
  ASSERT_EQ(PyTuple_Size(args.get()), 1);
  EXPECT_EQ(utf8_of(PyTuple_GetItem(args.get(), 0)), "with a cause");
  auto carried = kest_attribute(exception.get());
  ASSERT_TRUE(carried);
  ASSERT_TRUE(isKestObject(carried.get()));
  EXPECT_TRUE(kestObjectValue(carried.get()).isSame(error));
}

TEST(ToPython, ADerivedErrorIsRaisedAsItsMappedExceptionCarryingTheSameError) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_error_class("tpy_errors", "Broken");
  ASSERT_TRUE(cls);
  auto error = kest::Error::create(cls, kest::String(u"it broke"));
  ASSERT_TRUE(kest::raw_class_of(error).isSame(cls));
  PyObject *result = toPython(error);
  EXPECT_EQ(result, nullptr);
  ASSERT_NE(PyErr_Occurred(), nullptr);
  auto exception = take_exception();
  ASSERT_TRUE(exception);
  auto *type = reinterpret_cast<PyObject *>(Py_TYPE(exception.get()));
  EXPECT_EQ(type, exceptionTypeFor(cls));
  EXPECT_NE(type, PyExc_RuntimeError);
  EXPECT_EQ(PyObject_IsSubclass(type, PyExc_RuntimeError), 1);
  EXPECT_EQ(text_attribute(type, "__module__"), "tpy_errors");
  EXPECT_EQ(text_attribute(type, "__name__"), "Broken");
  auto carried = kest_attribute(exception.get());
  ASSERT_TRUE(carried);
  ASSERT_TRUE(isKestObject(carried.get()));
  EXPECT_TRUE(kestObjectValue(carried.get()).isSame(error));
}

TEST(ToPython, TheHostStopIterationIsRaisedAsStopIteration) {
  ensurePythonReady();
  py::gil lock;
  PyObject *result = toPython(kest::StopIteration());
  EXPECT_EQ(result, nullptr);
  ASSERT_NE(PyErr_Occurred(), nullptr);
  EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_StopIteration));
  auto exception = take_exception();
  ASSERT_TRUE(exception);
  EXPECT_EQ(reinterpret_cast<PyObject *>(Py_TYPE(exception.get())), PyExc_StopIteration);
}

// --- Classes -------------------------------------------------------------------

TEST(ToPython, TheClassOfAPythonTypeGivesBackThatType) {
  ensurePythonReady();
  py::gil lock;
  auto type = exec_get("class Gadget:\n    pass\n", "Gadget");
  ASSERT_TRUE(type);
  auto cls = typeFromPython(type.get());
  ASSERT_TRUE(kest::Class_Generic::isInstance(cls));
  auto result = to_py(cls);
  EXPECT_EQ(result.get(), type.get());
}

TEST(ToPython, AHostClassWithoutAPythonTypeIsWrapped) {
  ensurePythonReady();
  py::gil lock;
  auto cls = kest::Integer::getClass();
  auto result = to_py(cls);
  ASSERT_TRUE(result);
  ASSERT_TRUE(isKestObject(result.get()));
  EXPECT_TRUE(kestObjectValue(result.get()).isSame(cls));
}

// --- Decimals, external values, Python-backed wrappers -------------------------

TEST(ToPython, DecimalTextKeepsItsDigits) {
  ensurePythonReady();
  py::gil lock;
  auto value = kest::Decimal::fromString(std::string_view("1.10"));
  ASSERT_TRUE(kest::Decimal::isInstance(value));
  auto result = to_py(value);
  ASSERT_TRUE(result);
  EXPECT_TRUE(has_exact_type(result.get(), "__import__('decimal').Decimal"));
  // Decimal equality ignores trailing zeros; the exponent does not.
  auto exponent = py::object::steal(PyObject_CallMethod(result.get(), "as_tuple", nullptr));
  ASSERT_TRUE(exponent);
  EXPECT_TRUE(python_equals_expression(exponent.get(), "__import__('decimal').Decimal('1.10').as_tuple()"));
}

TEST(ToPython, AFortyDigitDecimalKeepsEveryDigit) {
  ensurePythonReady();
  py::gil lock;
  const char *digits = "1234567890123456789012345678901234567.891";
  auto value = kest::Decimal::fromString(std::string_view(digits));
  ASSERT_TRUE(kest::Decimal::isInstance(value));
  auto result = to_py(value);
  ASSERT_TRUE(result);
  EXPECT_TRUE(python_equals_expression(result.get(), std::string("__import__('decimal').Decimal('") + digits + "')"));
  auto digit_tuple = py::object::steal(PyObject_GetAttrString(
      py::object::steal(PyObject_CallMethod(result.get(), "as_tuple", nullptr)).get(), "digits"));
  ASSERT_TRUE(digit_tuple);
  EXPECT_EQ(PyTuple_Size(digit_tuple.get()), 40);
}

TEST(ToPython, AnExternalValueIsLoaded) {
  ensurePythonReady();
  py::gil lock;
  auto external = kest::External::fromValue(kest::Integer(41));
  auto result = to_py(external);
  EXPECT_EQ(long_of(result.get()), 41);
  external.store(kest::String(u"later"));
  auto again = to_py(external);
  EXPECT_TRUE(python_equals_expression(again.get(), "'later'"));
}

TEST(ToPython, APythonBackedWrapperGivesBackTheIdenticalObject) {
  ensurePythonReady();
  py::gil lock;
  auto object = eval_py("[1, 2, 3]");
  ASSERT_TRUE(object);
  auto wrapper = newCPythonObject(object.get());
  ASSERT_TRUE(isPythonBacked(wrapper));
  const Py_ssize_t before = Py_REFCNT(object.get());
  auto result = to_py(wrapper);
  EXPECT_EQ(result.get(), object.get());
  EXPECT_EQ(Py_REFCNT(object.get()), before + 1); // a new reference
}

TEST(ToPython, AClearedWrapperGivesNullWithoutAnError) {
  ensurePythonReady();
  py::gil lock;
  auto object = eval_py("object()");
  auto wrapper = newCPythonObject(object.get());
  setPythonObject(wrapper, nullptr);
  EXPECT_EQ(pythonObjectOf(wrapper), nullptr);
  PyObject *result = toPython(wrapper);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// --- Everything else becomes a KestObject --------------------------------------

TEST(ToPython, AListBecomesAKestObjectHoldingTheSameList) {
  ensurePythonReady();
  py::gil lock;
  kest::List list{kest::Integer(1)};
  auto result = to_py(list);
  ASSERT_TRUE(result);
  ASSERT_TRUE(isKestObject(result.get()));
  EXPECT_TRUE(kestObjectValue(result.get()).isSame(list));
}

TEST(ToPython, AHashMapBecomesAKestObjectHoldingTheSameMap) {
  ensurePythonReady();
  py::gil lock;
  kest::HashMap map;
  ASSERT_FALSE(map.setChecked(kest::String(u"k"), kest::Integer(1)).isError());
  auto result = to_py(map);
  ASSERT_TRUE(result);
  ASSERT_TRUE(isKestObject(result.get()));
  EXPECT_TRUE(kestObjectValue(result.get()).isSame(map));
}

TEST(ToPython, ADeclaredInstanceBecomesAKestObjectHoldingTheSameInstance) {
  ensurePythonReady();
  py::gil lock;
  using B = kest::internal::class_builder_base;
  auto cls = declare_class({B::name_entry(kest::String(u"TpyWidget"))});
  ASSERT_TRUE(cls);
  auto instance = cls.allocateInstance();
  ASSERT_FALSE(instance.isError());
  kest::Any value = kest::internal::result_unwrap_lazy(instance);
  auto result = to_py(value);
  ASSERT_TRUE(result);
  ASSERT_TRUE(isKestObject(result.get()));
  EXPECT_TRUE(kestObjectValue(result.get()).isSame(value));
}
