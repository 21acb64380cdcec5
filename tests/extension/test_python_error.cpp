// Python exceptions as host errors, and the exception types of host error classes.

#include "conversion_test_support.hpp"

#include "convert/to_python.hpp"
#include "language/exception_types.hpp"
#include "language/python_error.hpp"
#include "pyobject/kest_object.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <stdexcept>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
/// Runs `code` with exec and expects it to raise; the exception stays pending.
void exec_expecting_error(const char *code) {
  auto globals = py::object::steal(PyDict_New());
  auto result = py::object::steal(runWithBuiltin("exec", code, globals.get(), globals.get()));
  EXPECT_FALSE(result) << "the code did not raise: " << code;
  ASSERT_NE(PyErr_Occurred(), nullptr);
}

/// errorFromPython, checking that nothing stays pending.
kest::Error take_error(std::int64_t lineOffset, std::int64_t columnOffset) {
  auto error = errorFromPython(lineOffset, columnOffset);
  EXPECT_EQ(PyErr_Occurred(), nullptr) << "errorFromPython left a Python error pending";
  return error;
}

/// A whole-number attribute of `object`.
long long long_attribute(PyObject *object, const char *name) {
  auto value = py::object::steal(PyObject_GetAttrString(object, name));
  return long_of(value.get());
}

kest::Class_Generic declare_error_class(const char *name, const char *module) {
  using B = kest::internal::class_builder_base;
  std::vector<kest::Any> entries{B::name_entry(kest::String::fromUtf8(name)), B::base_entry(kest::Error::getClass())};
  if (module)
    entries.push_back(B::module_entry(kest::String::fromUtf8(module)));
  return declare_class(entries);
}

bool is_evaluation_error(const kest::Any &error) { return kest::EvaluationError::isInstance(error); }
} // namespace

// --- errorFromPython -------------------------------------------------------------

TEST(PythonError, NothingPendingGivesTheUnknownError) {
  ensurePythonReady();
  py::gil lock;
  ASSERT_EQ(PyErr_Occurred(), nullptr);
  auto error = take_error(0, 0);
  EXPECT_EQ(error.message().toUtf8(), "Unknown error.");
  EXPECT_FALSE(is_evaluation_error(error));
}

TEST(PythonError, ASyntaxErrorGivesItsLineAndPythonsOffset) {
  ensurePythonReady();
  py::gil lock;
  const char *code = "x = 1\nx = = 2\n";
  // What Python itself reports for this text.
  exec_expecting_error(code);
  auto reference = take_exception();
  ASSERT_TRUE(reference);
  ASSERT_EQ(PyObject_IsInstance(reference.get(), PyExc_SyntaxError), 1);
  const long long python_line = long_attribute(reference.get(), "lineno");
  const long long python_offset = long_attribute(reference.get(), "offset");
  ASSERT_EQ(python_line, 2);

  exec_expecting_error(code);
  auto error = take_error(0, 0);
  ASSERT_TRUE(is_evaluation_error(error));
  auto positioned = kest::EvaluationError::unsafeFrom(error);
  EXPECT_EQ(positioned.line(), 2);
  EXPECT_EQ(positioned.column(), python_offset);
}

TEST(PythonError, OffsetsShiftTheLineAndColumn) {
  ensurePythonReady();
  py::gil lock;
  const char *code = "x = 1\nx = = 2\n";
  exec_expecting_error(code);
  auto plain = kest::EvaluationError::unsafeFrom(take_error(0, 0));
  exec_expecting_error(code);
  auto error = take_error(-1, -1);
  ASSERT_TRUE(is_evaluation_error(error));
  auto shifted = kest::EvaluationError::unsafeFrom(error);
  ASSERT_TRUE(plain.line().has_value());
  ASSERT_TRUE(plain.column().has_value());
  EXPECT_EQ(shifted.line(), *plain.line() - 1);
  EXPECT_EQ(shifted.column(), *plain.column() - 1);
  EXPECT_EQ(shifted.line(), 1);
}

TEST(PythonError, ASyntaxErrorSpanComesFromPythonsEndOffset) {
  ensurePythonReady();
  py::gil lock;
  const char *code = "x = 1\nx = = 2\n";
  exec_expecting_error(code);
  auto reference = take_exception();
  ASSERT_TRUE(reference);
  const long long offset = long_attribute(reference.get(), "offset");
  const long long end_offset = long_attribute(reference.get(), "end_offset");
  ASSERT_GT(end_offset, offset);

  exec_expecting_error(code);
  auto error = take_error(0, -1);
  ASSERT_TRUE(is_evaluation_error(error));
  auto positioned = kest::EvaluationError::unsafeFrom(error);
  EXPECT_EQ(positioned.column(), offset - 1);
  EXPECT_EQ(positioned.spanStart(), offset - 1);
  EXPECT_EQ(positioned.spanLength(), end_offset - offset);
}

TEST(PythonError, ASyntaxErrorMessageKeepsPythonsCaretRendering) {
  ensurePythonReady();
  py::gil lock;
  exec_expecting_error("x = 1\nx = = 2\n");
  auto error = take_error(0, 0);
  const auto message = error.message().toUtf8();
  EXPECT_NE(message.find('^'), std::string::npos) << message;
  EXPECT_NE(message.find("x = = 2"), std::string::npos) << message;
  EXPECT_NE(message.find("SyntaxError"), std::string::npos) << message;
}

TEST(PythonError, ARuntimeErrorReportsTheLineOfTheInnermostFrame) {
  ensurePythonReady();
  py::gil lock;
  exec_expecting_error("def f(): g()\n"
                       "def g(): raise ValueError('deep')\n"
                       "f()\n");
  auto error = take_error(0, 0);
  ASSERT_TRUE(is_evaluation_error(error));
  EXPECT_EQ(kest::EvaluationError::unsafeFrom(error).line(), 2);
  EXPECT_EQ(error.message().toUtf8(), "deep");
  // The traceback goes with the error as its stack.
  EXPECT_NE(error.stack().toUtf8().find("ValueError"), std::string::npos);
}

TEST(PythonError, AnErrorWithoutPositionIsAPlainError) {
  ensurePythonReady();
  py::gil lock;
  PyErr_SetString(PyExc_ValueError, "x");
  auto error = take_error(3, 4);
  EXPECT_FALSE(is_evaluation_error(error));
  EXPECT_TRUE(kest::raw_class_of(error).isSame(kest::Error::getClass()));
  EXPECT_EQ(error.message().toUtf8(), "x");
}

TEST(PythonError, RaisingStopIterationGivesTheHostStopIteration) {
  ensurePythonReady();
  py::gil lock;
  exec_expecting_error("raise StopIteration\n");
  auto error = take_error(0, 0);
  EXPECT_TRUE(kest::StopIteration::isInstance(error));
}

TEST(PythonError, AStopIterationWithoutPositionGivesTheHostStopIteration) {
  ensurePythonReady();
  py::gil lock;
  PyErr_SetNone(PyExc_StopIteration);
  auto error = take_error(0, 0);
  EXPECT_TRUE(kest::StopIteration::isInstance(error));
}

TEST(PythonError, AnExceptionOutsideExceptionKeepsItsMessage) {
  ensurePythonReady();
  py::gil lock;
  exec_expecting_error("raise SystemExit('leaving now')\n");
  auto error = take_error(0, 0);
  EXPECT_EQ(error.message().toUtf8(), "leaving now");
  PyErr_SetString(PyExc_KeyboardInterrupt, "interrupted");
  auto interrupt = take_error(0, 0);
  EXPECT_EQ(interrupt.message().toUtf8(), "interrupted");
}

TEST(PythonError, EachNoteIsAppendedOnALineOfItsOwn) {
  ensurePythonReady();
  py::gil lock;
  exec_expecting_error("e = ValueError('boom')\n"
                       "e.add_note('first')\n"
                       "e.add_note('second')\n"
                       "raise e\n");
  auto error = take_error(0, 0);
  EXPECT_EQ(error.message().toUtf8(), "boom\nfirst\nsecond");
}

TEST(PythonError, AHostErrorRaisedIntoPythonComesBackIdentical) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_error_class("Returning", "tpe_errors");
  ASSERT_TRUE(cls);
  auto error = kest::Error::create(cls, kest::String(u"there and back"));
  EXPECT_EQ(toPython(error), nullptr);
  ASSERT_NE(PyErr_Occurred(), nullptr);
  auto back = take_error(0, 0);
  EXPECT_TRUE(back.isSame(error));
}

TEST(PythonError, AHostErrorRaisedThroughPythonCodeComesBackIdentical) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_error_class("Travelling", "tpe_errors");
  ASSERT_TRUE(cls);
  auto error = kest::Error::create(cls, kest::String(u"through frames"));
  EXPECT_EQ(toPython(error), nullptr);
  auto exception = take_exception();
  ASSERT_TRUE(exception);
  auto globals = py::object::steal(PyDict_New());
  ASSERT_EQ(PyDict_SetItemString(globals.get(), "carried", exception.get()), 0);
  auto result = py::object::steal(
      runWithBuiltin("exec", "def rethrow():\n    raise carried\nrethrow()\n", globals.get(), globals.get()));
  ASSERT_FALSE(result);
  auto back = take_error(0, 0);
  EXPECT_TRUE(back.isSame(error));
}

TEST(PythonError, AnErrorWithACauseComesBackIdentical) {
  ensurePythonReady();
  py::gil lock;
  kest::Error error("caused");
  error.setCause(std::make_exception_ptr(std::runtime_error("x")));
  EXPECT_EQ(toPython(error), nullptr);
  auto back = take_error(0, 0);
  EXPECT_TRUE(back.isSame(error));
}

TEST(PythonError, AHostStopIterationComesBackIdentical) {
  ensurePythonReady();
  py::gil lock;
  kest::StopIteration stop(kest::String(u"done"));
  EXPECT_EQ(toPython(stop), nullptr);
  ASSERT_TRUE(PyErr_ExceptionMatches(PyExc_StopIteration));
  auto back = take_error(0, 0);
  EXPECT_TRUE(back.isSame(stop));
}

TEST(PythonError, APlainHostErrorComesBackWithItsMessage) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_EQ(toPython(kest::Error("plain")), nullptr);
  auto back = take_error(0, 0);
  EXPECT_EQ(back.message().toUtf8(), "plain");
  EXPECT_TRUE(kest::raw_class_of(back).isSame(kest::Error::getClass()));
}

// --- currentPythonError ----------------------------------------------------------

TEST(PythonError, CurrentPythonErrorIsNoneWhenNothingIsPending) {
  ensurePythonReady();
  py::gil lock;
  auto current = currentPythonError();
  EXPECT_TRUE(current.is<kest::None>());
  EXPECT_FALSE(current.is<kest::Error>());
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST(PythonError, CurrentPythonErrorTakesThePendingException) {
  ensurePythonReady();
  py::gil lock;
  PyErr_SetString(PyExc_KeyError, "missing");
  auto current = currentPythonError();
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  ASSERT_TRUE(current.is<kest::Error>());
  EXPECT_EQ(current.as<kest::Error>().message().toUtf8(), "'missing'");
  // Consumed: a second call finds nothing.
  EXPECT_TRUE(currentPythonError().is<kest::None>());
}

TEST(PythonError, CurrentPythonErrorTakesAnExceptionOutsideException) {
  ensurePythonReady();
  py::gil lock;
  PyErr_SetString(PyExc_KeyboardInterrupt, "stop");
  auto current = currentPythonError();
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  ASSERT_TRUE(current.is<kest::Error>());
  EXPECT_EQ(current.as<kest::Error>().message().toUtf8(), "stop");
}

TEST(PythonError, CurrentPythonErrorKeepsACarriedHostError) {
  ensurePythonReady();
  py::gil lock;
  kest::Error error("carried along");
  error.setCause(std::make_exception_ptr(std::runtime_error("x")));
  EXPECT_EQ(toPython(error), nullptr);
  auto current = currentPythonError();
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  ASSERT_TRUE(current.is<kest::Error>());
  EXPECT_TRUE(current.isSame(error));
}

// --- exceptionTypeFor -------------------------------------------------------------

TEST(PythonErrorTypes, TheSameClassGivesTheIdenticalType) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_error_class("Stable", "tpe_types");
  ASSERT_TRUE(cls);
  PyObject *first = exceptionTypeFor(cls);
  PyObject *second = exceptionTypeFor(cls);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_TRUE(errorClassForExceptionType(first).isSame(cls));
}

TEST(PythonErrorTypes, ErrorAndStopIterationUsePythonsOwnTypes) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_EQ(exceptionTypeFor(kest::Error::getClass()), PyExc_RuntimeError);
  EXPECT_EQ(exceptionTypeFor(kest::StopIteration::getClass()), PyExc_StopIteration);
}

TEST(PythonErrorTypes, AMadeTypeIsAMarkedRuntimeErrorSubclass) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_error_class("Marked", "tpe_types");
  ASSERT_TRUE(cls);
  PyObject *type = exceptionTypeFor(cls);
  ASSERT_NE(type, nullptr);
  EXPECT_TRUE(PyType_Check(type));
  EXPECT_EQ(PyObject_IsSubclass(type, PyExc_RuntimeError), 1);
  auto marker = py::object::steal(PyObject_GetAttrString(type, "kest"));
  EXPECT_EQ(marker.get(), Py_None);
  EXPECT_EQ(text_attribute(type, "__module__"), "tpe_types");
  EXPECT_EQ(text_attribute(type, "__name__"), "Marked");
}

TEST(PythonErrorTypes, AClassWithoutModuleIsNamedUnderKest) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_error_class("Loose", nullptr);
  ASSERT_TRUE(cls);
  ASSERT_EQ(kest::qualname(cls).toUtf8(), "Loose");
  PyObject *type = exceptionTypeFor(cls);
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(text_attribute(type, "__module__"), "kest");
  EXPECT_EQ(text_attribute(type, "__name__"), "Loose");
}
