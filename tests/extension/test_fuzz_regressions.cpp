// Faults that the fuzz targets of tests/fuzz found, each kept as a test.

#include "convert/to_python.hpp"
#include "language/python_error.hpp"
#include "language_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
/// str() of the pending Python exception as UTF-8, with the exception cleared.
std::string pending_exception_text() {
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  auto t = py::object::steal(type), v = py::object::steal(value), tb = py::object::steal(traceback);
  auto text = py::object::steal(v ? PyObject_Str(v.get()) : nullptr);
  PyErr_Clear();
  return std::string(py::utf8(text.get()));
}

/// The line of an EvaluationError; -1 for anything else, and none for no line.
std::optional<std::int64_t> error_line(const kest::Any& value) {
  if (!kest::EvaluationError::isInstance(value))
    return -1;
  return kest::EvaluationError::unsafeFrom(value).line();
}
} // namespace

// fuzz_round_trip: the message reached Python as a C string, cut at the first null character.
TEST(FuzzRegressions, AHostErrorMessageKeepsWhatFollowsANullCharacter) {
  ensurePythonReady();
  py::gil lock;
  const std::u16string_view text(u"before\0after", 12);
  const kest::Error error{kest::String(text)};
  PyObject* converted = toPythonLocked(error);
  ASSERT_EQ(converted, nullptr);
  ASSERT_NE(PyErr_Occurred(), nullptr);
  EXPECT_EQ(pending_exception_text(), std::string("before\0after", 12));

  // And back: the host error has the whole text.
  raiseHostError(error);
  auto back = currentPythonError();
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  ASSERT_TRUE(back.is<kest::Error>());
  EXPECT_EQ(back.as<kest::Error>().message().view(), text);
}

// fuzz_evaluate: Python ends a line at a lone "\r" too; the text after it ran
// outside the generated function ("'return' outside function").
TEST(FuzzRegressions, StatementsAfterALoneCarriageReturnRunInTheFunction) {
  EXPECT_EQ(integer_of(evaluate("x = 1\rreturn x")), 1);
  EXPECT_EQ(integer_of(evaluate("x = 2\r\nreturn x\r")), 2);
  EXPECT_EQ(integer_of(evaluate("if True:\r    x = 3\rreturn x")), 3);
}

TEST(FuzzRegressions, ASyntaxErrorAfterALoneCarriageReturnIsOnItsOwnLine) {
  const auto result = evaluate("x = 1\ry = = 2");
  EXPECT_EQ(error_line(result), 2) << message_of(result);
}

// fuzz_evaluate: errors that the compiler finds after parsing keep their
// position only in attributes; the compiled-code cache raised them again
// from their arguments alone, so that the second run had no position.
TEST(FuzzRegressions, ASyntaxErrorFoundAfterParsingKeepsItsPositionWhenCached) {
  const std::string code = "x = 0\ndef fuzz_regression(a, a):\n    pass";
  const auto first = evaluate(code);
  const auto second = evaluate(code);
  EXPECT_EQ(error_line(first), 2) << message_of(first);
  EXPECT_EQ(error_line(second), 2) << message_of(second);
  EXPECT_EQ(message_of(first), message_of(second));

  const std::string expression = "[(lambda b, b: 0)]";
  const auto once = evaluate_expression(expression);
  const auto again = evaluate_expression(expression);
  EXPECT_EQ(error_line(once), 1) << message_of(once);
  EXPECT_EQ(error_line(again), 1) << message_of(again);
}

// fuzz_evaluate: Python blames the generated "global" line of an out-local
// that the text declares nonlocal or global again: the error came back at line 0.
TEST(FuzzRegressions, AnOutLocalDeclaredAgainIsBlamedOnTheUsersLine) {
  for (const char *code : {"x = 1\nnonlocal out", "x = 1\ny = 2\ndef f():\n    nonlocal out"}) {
    auto out = string_map({{"out", kest::Integer(0)}});
    const auto result = kest::internal::result_unwrap_lazy(language().evaluate(
        kest::String::fromUtf8(code),
        kest::EvaluationScope(kest::Any(), kest::None(), kest::None(), kest::I_MutableMap::unsafeFrom(out))));
    const std::string text(code);
    const auto expected = text.starts_with("x = 1\nnonlocal") ? 2 : 4;
    EXPECT_EQ(error_line(result), expected) << code << ": " << message_of(result);
  }
}

// fuzz_evaluate: an error at the very end of the text landed on the line
// after the last, the generated line that follows the text.
TEST(FuzzRegressions, AnErrorAtTheEndOfTheTextIsOnItsLastLine) {
  for (const auto &[code, line] : {std::pair{"x = 1\nif x:", 2}, std::pair{"x = 1\ny = (1 +", 2},
                                   std::pair{"x = 1 \\", 1}, std::pair{"s = '''open", 1}}) {
    const auto result = evaluate(code);
    EXPECT_EQ(error_line(result), line) << code << ": " << message_of(result);
  }
}

// fuzz_round_trip: a plain host error without a message came back with the
// text that Python shows for it instead of its own empty message.
TEST(FuzzRegressions, APlainHostErrorWithoutAMessageComesBackWithout) {
  ensurePythonReady();
  py::gil lock;
  const kest::Error empty(kest::String(u""));
  EXPECT_EQ(toPython(empty), nullptr);
  ASSERT_NE(PyErr_Occurred(), nullptr);
  const auto back = errorFromPython(0, 0);
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  EXPECT_TRUE(back.message().empty()) << back.message().toUtf8();
  EXPECT_EQ(kest::qualname(kest::raw_class_of(back)).toUtf8(), "kest.Error");
}
