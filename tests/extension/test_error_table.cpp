// Errors of evaluations, kind by kind: the host class, the Python type name,
// the message, the user's line and the stack text, through `evaluate`,
// `evaluateExpression` and the sandbox.

#include "language_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

enum class run_as { statements, expression, sandboxed, with_out_local };

struct error_case {
  const char *name;
  run_as how;
  std::string code;
  std::string host_class; ///< the qualified name of the error's host class
  std::string type_name;  ///< the Python type that raised it
  std::string message;    ///< exact; "*" for any text that is not empty
  std::int64_t line;
  std::vector<std::string> stack_has = {};
  std::vector<std::string> stack_lacks = {"kest_outer", "kest_store_result"};
};

kest::Class_Generic table_error_class() {
  static const kest::Class_Generic cls = [] {
    using B = kest::internal::class_builder_base;
    auto made = kest::internal::defclass_impl({B::name_entry(kest::String(u"TableError")),
                                               B::base_entry(kest::Error::getClass()),
                                               B::module_entry(kest::String(u"errtable"))});
    EXPECT_FALSE(made.isError()) << message_of(made);
    return made.as<kest::Class_Generic>();
  }();
  return cls;
}

/// Host functions that fail in each way a host function can.
kest::HashMap host_functions() {
  return string_map({
      {"thrown", kest::make_function([]() -> kest::Any { throw std::runtime_error("thrown by the host"); })},
      {"returned", kest::make_function([]() -> kest::Any { return kest::Error(kest::String(u"returned by the host")); })},
      {"declared",
       kest::make_function([]() -> kest::Any { return kest::Error::create(table_error_class(), kest::String(u"own class")); })},
      {"typed", kest::make_function([](std::int64_t n) { return n + 1; })},
  });
}

kest::Any run(const error_case &c) {
  auto locals = host_functions();
  auto out = string_map({{"out", kest::Integer(0)}});
  const auto code = kest::String::fromUtf8(c.code);
  switch (c.how) {
  case run_as::statements:
    return unwrapped(language().evaluate(code, kest::EvaluationScope(kest::Any(), kest::None(),
                                                                     kest::I_Map::unsafeFrom(locals), kest::None())));
  case run_as::expression:
    return unwrapped(language().evaluateExpression(
        code, kest::EvaluationScope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None())));
  case run_as::sandboxed:
    return unwrapped(python_language().evaluateInSandbox(
        code, kest::EvaluationScope(kest::Any(), kest::None(), kest::None(), kest::None())));
  case run_as::with_out_local:
    return unwrapped(language().evaluate(code, kest::EvaluationScope(kest::Any(), kest::None(), kest::None(),
                                                                     kest::I_MutableMap::unsafeFrom(out))));
  }
  return {};
}

const std::vector<error_case> &cases() {
  static const std::vector<error_case> all = {
      {"ZeroDivision", run_as::statements, "x = 1\ny = x / 0", "kest.EvaluationError", "ZeroDivisionError",
       "division by zero", 2, {"File \"<string>\", line 2, in <module>\n", "ZeroDivisionError: division by zero\n"}},
      {"KeyErrorInAnExpression", run_as::expression, "{}['x']", "kest.EvaluationError", "KeyError", "'x'", 1,
       {"line 1, in <module>", "KeyError: 'x'"}},
      {"NameErrorOnLineThree", run_as::statements, "a = 1\n\nundefined_name", "kest.EvaluationError", "NameError",
       "name 'undefined_name' is not defined", 3, {"line 3, in <module>"}},
      {"TypeError", run_as::statements, "len(5)", "kest.EvaluationError", "TypeError",
       "object of type 'int' has no len()", 1},
      {"AttributeError", run_as::statements, "x = 1\nx.nothing", "kest.EvaluationError", "AttributeError",
       "'int' object has no attribute 'nothing'", 2},
      {"IndexErrorInAnExpression", run_as::expression, "[][1]", "kest.EvaluationError", "IndexError",
       "list index out of range", 1},
      {"ValueErrorFromABuiltin", run_as::statements, "n = int('x')", "kest.EvaluationError", "ValueError",
       "invalid literal for int() with base 10: 'x'", 1},
      {"LibraryErrorOneCallBelow", run_as::statements, "import json\n\njson.loads('{bad')", "kest.EvaluationError",
       "json.decoder.JSONDecodeError", "*", 3, {"line 3, in <module>", "json/decoder.py", "JSONDecodeError: "}},
      {"LibraryErrorTwoCallsBelow", run_as::statements, "from fractions import Fraction\nFraction('x/y')",
       "kest.EvaluationError", "ValueError", "Invalid literal for Fraction: 'x/y'", 2,
       {"line 2, in <module>", "fractions.py"}},
      {"LibraryErrorInAnExpression", run_as::expression, "__import__('json').loads('{bad')", "kest.EvaluationError",
       "json.decoder.JSONDecodeError", "*", 1},
      {"ExceptionWithItsOwnLineno", run_as::statements,
       "class E(Exception):\n    lineno = 42\nraise E('own')", "kest.EvaluationError", "E", "own", 3, {"E: own"}},
      {"RuntimeErrorTwoCallsDeepInTheText", run_as::statements,
       "def f():\n    return g()\ndef g():\n    return 1 / 0\nf()", "kest.EvaluationError", "ZeroDivisionError",
       "division by zero", 4, {"line 5, in <module>\n", "line 2, in f\n", "line 4, in g\n"}},
      {"ChainedErrors", run_as::statements,
       "try:\n    1 / 0\nexcept Exception as e:\n    raise ValueError('v') from e", "kest.EvaluationError", "ValueError",
       "v", 4, {"line 2, in <module>", "direct cause", "line 4, in <module>", "ValueError: v"}},
      {"SyntaxErrorRaisedByTheRunningText", run_as::statements, "x = 1\ncompile('(', 'inner', 'exec')",
       "kest.EvaluationError", "SyntaxError", "*", 2, {"line 2, in <module>"}},
      {"SyntaxErrorAtTheStart", run_as::statements, "x = = 1\ny = 2", "kest.EvaluationError", "SyntaxError", "*", 1,
       {"line 1\n", "SyntaxError: invalid syntax"}},
      {"SyntaxErrorInTheMiddle", run_as::statements, "a = 1\nb = 1 +\nc = 3", "kest.EvaluationError", "SyntaxError",
       "*", 2, {"line 2\n", "b = 1 +"}},
      {"SyntaxErrorAtTheEnd", run_as::statements, "x = 1\nif x:", "kest.EvaluationError", "IndentationError", "*", 2,
       {"expected an indented block after 'if' statement on line 2"}},
      {"SyntaxErrorAtTheEndOfAnOpenBracket", run_as::statements, "x = 1\ny = (1 +\n", "kest.EvaluationError",
       "SyntaxError", "*", 2, {"'(' was never closed"}},
      {"SyntaxErrorInAnExpression", run_as::expression, "1 +", "kest.EvaluationError", "SyntaxError", "*", 1},
      {"OutLocalDeclaredAgain", run_as::with_out_local, "x = 1\nnonlocal out", "kest.EvaluationError", "SyntaxError",
       "*", 2, {"name 'out' is nonlocal and global"}},
      {"ErrorAfterTheOutLocals", run_as::with_out_local, "out = 1\nout = out / 0", "kest.EvaluationError",
       "ZeroDivisionError", "division by zero", 2, {"line 2, in <module>"}},
      {"HostErrorThrown", run_as::statements, "x = 1\nthrown()", "kest.Error", "RuntimeError", "thrown by the host", 2,
       {"line 2, in <module>", "RuntimeError: thrown by the host"}},
      {"HostErrorReturned", run_as::statements, "x = 1\nreturned()", "kest.Error", "RuntimeError",
       "returned by the host", 2, {"line 2, in <module>", "RuntimeError: returned by the host"}},
      {"HostErrorOfADeclaredClass", run_as::statements, "x = 1\n\ndeclared()", "errtable.TableError",
       "errtable.TableError", "own class", 3, {"line 3, in <module>", "errtable.TableError: own class"}},
      {"HostErrorInAnExpression", run_as::expression, "declared()", "errtable.TableError", "errtable.TableError",
       "own class", 1},
      {"BadArgumentFromAHostCall", run_as::statements, "x = 1\ntyped('a')", "kest.BadArgument", "kest.BadArgument", "*",
       2, {"line 2, in <module>"}},
      {"ErrorInsideTheSandbox", run_as::sandboxed, "x = 1\nopen('never-written', 'w')", "kest.EvaluationError", "PermissionError",
       "write blocked: read-only sandbox", 2, {"line 2, in <module>"}},
      {"SyntaxErrorInsideTheSandbox", run_as::sandboxed, "x = 1\ny = = 2", "kest.EvaluationError", "SyntaxError", "*", 2},
  };
  return all;
}

void PrintTo(const error_case &c, std::ostream *out) { *out << c.name; }

class ErrorTable : public ::testing::TestWithParam<error_case> {};

std::string case_name(const ::testing::TestParamInfo<error_case> &info) { return info.param.name; }

} // namespace

TEST_P(ErrorTable, ClassTypeMessageLineAndStack) {
  const auto &c = GetParam();
  const auto result = run(c);
  ASSERT_TRUE(kest::Error::isInstance(result)) << "no error: " << kest::display(result).toUtf8();
  const auto error = kest::Error::unsafeFrom(result);
  EXPECT_EQ(kest::qualname(kest::raw_class_of(error)).toUtf8(), c.host_class);
  if (c.type_name == "*")
    EXPECT_FALSE(error.typeName().empty());
  else
    EXPECT_EQ(error.typeName().toUtf8(), c.type_name);
  if (c.message == "*")
    EXPECT_FALSE(error.message().empty());
  else
    EXPECT_EQ(error.message().toUtf8(), c.message);
  EXPECT_EQ(error.line(), c.line) << error.stack().toUtf8();
  const auto stack = error.stack().toUtf8();
  for (const auto &part : c.stack_has)
    EXPECT_NE(stack.find(part), std::string::npos) << "'" << part << "' is not in the stack:\n" << stack;
  for (const auto &part : c.stack_lacks)
    EXPECT_EQ(stack.find(part), std::string::npos) << "'" << part << "' is in the stack:\n" << stack;
  // What display shows names the type, as Python's last traceback line does.
  const auto shown = kest::display(error).toUtf8();
  EXPECT_NE(shown.find(error.typeName().toUtf8()), std::string::npos) << shown;
}

INSTANTIATE_TEST_SUITE_P(Kinds, ErrorTable, ::testing::ValuesIn(cases()), case_name);

TEST(ErrorTableRules, AHostErrorComesBackAsACopyThatLeavesTheOriginalAlone) {
  const auto original = kest::Error::create(table_error_class(), kest::String(u"shared"));
  auto locals = string_map({{"give", kest::make_function([original]() -> kest::Any { return original; })}});
  const auto result = unwrapped(language().evaluate(
      kest::String(u"x = 1\ngive()"),
      kest::EvaluationScope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None())));
  ASSERT_TRUE(kest::Error::isInstance(result));
  EXPECT_FALSE(result.isSame(original));
  EXPECT_EQ(kest::Error::unsafeFrom(result).line(), 2);
  EXPECT_FALSE(original.line().has_value());
  EXPECT_TRUE(original.typeName().empty());
}

TEST(ErrorTableRules, APythonErrorConvertedAsAValueKeepsItsTypeName) {
  const auto value = unwrapped(language().evaluateExpression(kest::String(u"KeyError('k')")));
  ASSERT_TRUE(kest::Error::isInstance(value)) << kest::display(value).toUtf8();
  EXPECT_EQ(kest::Error::unsafeFrom(value).typeName().toUtf8(), "KeyError");
  EXPECT_EQ(kest::display(value).toUtf8(), "KeyError: 'k'");
}
