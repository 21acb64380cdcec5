// Running statements and expressions through the host's language interface:
// results, out-locals, error positions, and what the evaluated code sees.

#include "language_test_support.hpp"
#include "fresh_interpreter.hpp"

#include "proxies/cpython_object.hpp"
#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

kest::Union<kest::I_Map, kest::None> as_map(const kest::Any &map) {
  if (map.empty())
    return kest::None();
  return kest::I_Map::unsafeFrom(map);
}

kest::Union<kest::I_MutableMap, kest::None> as_mutable_map(const kest::Any &map) {
  if (map.empty())
    return kest::None();
  return kest::I_MutableMap::unsafeFrom(map);
}

/// A scope; an empty handle stands for "no map".
kest::EvaluationScope scope(const kest::Any &self, const kest::Any &globals, const kest::Any &locals,
                            const kest::Any &outLocals) {
  return kest::EvaluationScope(self, as_map(globals), as_map(locals), as_mutable_map(outLocals));
}

/// What Python itself reports (line, offset) for a syntax error in `code`.
std::pair<long, long> python_syntax_position(const std::string &code, const char *mode) {
  ensurePythonReady();
  py::gil lock;
  auto builtins = PyEval_GetBuiltins(); // borrowed
  PyObject *compile = builtins ? PyDict_GetItemString(builtins, "compile") : nullptr;
  if (!compile) {
    ADD_FAILURE() << "no builtin compile";
    return {-1, -1};
  }
  auto result = py::object::steal(PyObject_CallFunction(compile, "sss", code.c_str(), "<string>", mode));
  if (result) {
    ADD_FAILURE() << "the code compiled: " << code;
    return {-1, -1};
  }
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  auto t = py::object::steal(type), v = py::object::steal(value), tb = py::object::steal(traceback);
  auto attribute = [&](const char *name) {
    auto a = py::object::steal(v ? PyObject_GetAttrString(v.get(), name) : nullptr);
    const long n = a ? PyLong_AsLong(a.get()) : -1;
    PyErr_Clear();
    return n;
  };
  return {attribute("lineno"), attribute("offset")};
}

/// Binds `name` to the EvaluationError in `value`, or ends the test.
#define ASSERT_EVALUATION_ERROR(name, value)                                                     \
  const kest::Any name##_value = (value);                                                        \
  ASSERT_TRUE(kest::EvaluationError::isInstance(name##_value)) << kest::display(name##_value).toUtf8(); \
  const auto name = kest::EvaluationError::unsafeFrom(name##_value)
} // namespace

// --- results of statements ------------------------------------------------------------

TEST(Evaluation, TheLanguageIsRegisteredUnderThePythonName) {
  ensurePythonReady();
  auto found = kest::find_language(kest::internal::language_name_python());
  ASSERT_TRUE(found.is<kest::I_Language>());
  EXPECT_TRUE(kest::PythonLanguage::isInstance(found));
}

TEST(Evaluation, CodeWithoutReturnYieldsNone) {
  auto result = evaluate("x = 1\ny = x + 1");
  EXPECT_FALSE(kest::internal::is_error_value(result)) << message_of(result);
  EXPECT_TRUE(kest::is_none(result)) << kest::display(result).toUtf8();
}

TEST(Evaluation, ReturnOfAValueYieldsItsHostForm) {
  auto result = evaluate("return 5");
  ASSERT_TRUE(kest::Integer::isInstance(result)) << message_of(result);
  EXPECT_EQ(kest::Integer::unsafeFrom(result).value(), 5);
  EXPECT_EQ(text_of(evaluate("return 'five'")), "five");
}

TEST(Evaluation, BareReturnYieldsNone) {
  auto result = evaluate("x = 1\nif x:\n    return\nreturn 7");
  EXPECT_FALSE(kest::internal::is_error_value(result)) << message_of(result);
  EXPECT_TRUE(kest::is_none(result)) << kest::display(result).toUtf8();
}

// --- out-locals -------------------------------------------------------------------------

TEST(Evaluation, OutLocalStartsFromItsValueAndReceivesTheAssignment) {
  auto out = string_map({{"a", kest::Integer(1)}});
  auto result = evaluate("a = a + 1", scope({}, {}, {}, out));
  EXPECT_FALSE(kest::internal::is_error_value(result)) << message_of(result);
  EXPECT_TRUE(kest::is_none(result));
  EXPECT_EQ(integer_of(out.find(kest::String(u"a"))), 2);
  EXPECT_EQ(out.length(), 1);
}

TEST(Evaluation, OutLocalsKeepTheirKeyOrder) {
  auto out = string_map({{"z", kest::Integer(0)}, {"a", kest::Integer(0)}, {"m", kest::Integer(0)}});
  auto result = evaluate("a = 1\nz = 2\nm = 3\nextra = 4", scope({}, {}, {}, out));
  ASSERT_FALSE(kest::internal::is_error_value(result)) << message_of(result);
  auto pairs = out.copyPairs();
  ASSERT_EQ(pairs.size(), 3u);
  EXPECT_EQ(text_of(pairs[0].first), "z");
  EXPECT_EQ(text_of(pairs[1].first), "a");
  EXPECT_EQ(text_of(pairs[2].first), "m");
  EXPECT_EQ(integer_of(pairs[0].second), 2);
  EXPECT_EQ(integer_of(pairs[1].second), 1);
  EXPECT_EQ(integer_of(pairs[2].second), 3);
}

TEST(Evaluation, OutLocalAssignedInsideANestedBlock) {
  auto out = string_map({{"found", kest::Integer(-1)}});
  auto result = evaluate("for i in range(5):\n"
                         "    if i % 2 == 1:\n"
                         "        while True:\n"
                         "            found = i * 10\n"
                         "            break\n",
                         scope({}, {}, {}, out));
  ASSERT_FALSE(kest::internal::is_error_value(result)) << message_of(result);
  EXPECT_EQ(integer_of(out.find(kest::String(u"found"))), 30);
}

TEST(Evaluation, OutLocalThatIsNeverBoundFailsTheCallWithANameError) {
  // A value without a Python form is skipped, so the name starts unbound.
  auto out = string_map({{"missing", newCPythonObject(nullptr)}});
  auto result = evaluate("x = 1\nreturn x", scope({}, {}, {}, out));
  ASSERT_TRUE(kest::Error::isInstance(result)) << kest::display(result).toUtf8();
  EXPECT_EQ(message_of(result), "name 'missing' is not defined");
  EXPECT_NE(kest::Error::unsafeFrom(result).stack().toUtf8().find("NameError"), std::string::npos)
      << kest::Error::unsafeFrom(result).stack().toUtf8();
}

TEST(Evaluation, OutLocalWithoutPythonFormIsFilledWhenTheCodeAssignsIt) {
  auto out = string_map({{"late", newCPythonObject(nullptr)}});
  auto result = evaluate("late = 'set'", scope({}, {}, {}, out));
  ASSERT_FALSE(kest::internal::is_error_value(result)) << message_of(result);
  EXPECT_EQ(text_of(out.find(kest::String(u"late"))), "set");
}

// --- error positions --------------------------------------------------------------------

TEST(Evaluation, SyntaxErrorOnTheFirstUserLineReportsLineOne) {
  const std::string code = "x = = 1";
  ASSERT_EVALUATION_ERROR(error, evaluate(code));
  EXPECT_EQ(error.line(), 1);
  // The user's line sits behind a tab in the generated function.
  const auto generated = python_syntax_position("def kest_outer():\n\t" + code + "\n", "exec");
  ASSERT_EQ(generated.first, 2);
  EXPECT_EQ(error.column(), generated.second - 1);
  // Which is where Python places the error in the user's own text.
  EXPECT_EQ(error.column(), python_syntax_position(code, "exec").second);
}

TEST(Evaluation, SyntaxErrorAfterTwoOutLocalsReportsTheUserLine) {
  auto out = string_map({{"a", kest::Integer(0)}, {"b", kest::Integer(0)}});
  const std::string code = "a = 1\nb = 2\nc = (a +* b)\n";
  ASSERT_EVALUATION_ERROR(error, evaluate(code, scope({}, {}, {}, out)));
  EXPECT_EQ(error.line(), 3);
  const auto own = python_syntax_position(code, "exec");
  ASSERT_EQ(own.first, 3);
  EXPECT_EQ(error.column(), own.second);
}

TEST(Evaluation, RuntimeErrorTwoCallsDeepReportsTheInnermostLine) {
  ASSERT_EVALUATION_ERROR(error, evaluate("def inner():\n"
                                                "    raise ValueError('deep')\n"
                                                "def outer():\n"
                                                "    inner()\n"
                                                "outer()\n"));
  EXPECT_EQ(error.line(), 2);
  EXPECT_FALSE(error.column().has_value());
  EXPECT_EQ(error.message().toUtf8(), "deep");
}

TEST(Evaluation, RuntimeErrorLineIsRelativeToTheUserTextWithOutLocals) {
  auto out = string_map({{"a", kest::Integer(0)}, {"b", kest::Integer(0)}, {"c", kest::Integer(0)}});
  ASSERT_EVALUATION_ERROR(error, evaluate("a = 1\nb = 2\nc = 1 / 0\n", scope({}, {}, {}, out)));
  EXPECT_EQ(error.line(), 3);
  EXPECT_EQ(error.message().toUtf8(), "division by zero");
}

TEST(Evaluation, HostErrorComesBackAsItsOwnClassWithTheLineOfTheCall) {
  const kest::BadArgument failure(kest::String(u"host refused"));
  auto fails = kest::make_function([failure]() -> kest::Any { return failure; });
  auto result = evaluate("x = 1\nfail()\n", scope({}, {}, string_map({{"fail", fails}}), {}));
  ASSERT_TRUE(kest::BadArgument::isInstance(result)) << kest::display(result).toUtf8();
  EXPECT_FALSE(kest::EvaluationError::isInstance(result));
  EXPECT_EQ(message_of(result), "host refused");
  EXPECT_EQ(kest::Error::unsafeFrom(result).line(), 2);
  EXPECT_EQ(kest::Error::unsafeFrom(result).typeName().toUtf8(), "kest.BadArgument");
  // A copy: the host's own error object keeps no position of this evaluation.
  EXPECT_FALSE(result.isSame(failure));
  EXPECT_FALSE(failure.line().has_value());
}

TEST(Evaluation, RaisedStopIterationYieldsAHostStopIteration) {
  auto result = evaluate("x = 1\nraise StopIteration");
  EXPECT_TRUE(kest::StopIteration::isInstance(result)) << kest::display(result).toUtf8();
  EXPECT_FALSE(kest::EvaluationError::isInstance(result));
  auto exhausted = evaluate_expression("next(iter([]))");
  EXPECT_TRUE(kest::StopIteration::isInstance(exhausted)) << kest::display(exhausted).toUtf8();
}

// --- what the code sees -----------------------------------------------------------------

TEST(Evaluation, SelfIsTheScopesSelf) {
  EXPECT_EQ(integer_of(evaluate("return self * 2", scope(kest::Integer(21), {}, {}, {}))), 42);
  auto host = string_map({{"k", kest::Integer(1)}});
  EXPECT_TRUE(evaluate("return self", scope(host, {}, {}, {})).isSame(host));
}

TEST(Evaluation, WithoutSelfSelfIsNone) {
  EXPECT_TRUE(boolean_of(evaluate("return self is None", scope({}, {}, {}, {}))));
  EXPECT_TRUE(boolean_of(evaluate("return self is None")));
}

TEST(Evaluation, ScopeGlobalsReplaceTheHostGlobalTable) {
  ensurePythonReady();
  ASSERT_FALSE(kest::globals().setChecked(kest::String(u"host_global"), kest::Integer(2)).isError());
  auto globals = string_map({{"scope_global", kest::Integer(1)}});
  EXPECT_EQ(integer_of(evaluate("return scope_global", scope({}, globals, {}, {}))), 1);
  EXPECT_FALSE(boolean_of(evaluate("return 'host_global' in globals()", scope({}, globals, {}, {}))));
  EXPECT_TRUE(kest::Error::isInstance(evaluate_expression("host_global", scope({}, globals, {}, {}))));
}

TEST(Evaluation, WithoutScopeGlobalsTheHostGlobalTableIsVisible) {
  ensurePythonReady();
  ASSERT_FALSE(kest::globals().setChecked(kest::String(u"host_global"), kest::Integer(2)).isError());
  EXPECT_EQ(integer_of(evaluate("return host_global")), 2);
  EXPECT_EQ(integer_of(evaluate("return host_global + 1", scope({}, {}, string_map(), {}))), 3);
  EXPECT_EQ(integer_of(evaluate_expression("host_global * 10")), 20);
}

TEST(Evaluation, LocalsOverrideGlobals) {
  ensurePythonReady();
  ASSERT_FALSE(kest::globals().setChecked(kest::String(u"shared"), kest::Integer(1)).isError());
  auto locals = string_map({{"shared", kest::Integer(3)}});
  EXPECT_EQ(integer_of(evaluate("return shared", scope({}, {}, locals, {}))), 3);
  auto globals = string_map({{"shared", kest::Integer(2)}});
  EXPECT_EQ(integer_of(evaluate("return shared", scope({}, globals, {}, {}))), 2);
  EXPECT_EQ(integer_of(evaluate("return shared", scope({}, globals, locals, {}))), 3);
  EXPECT_EQ(integer_of(evaluate_expression("shared", scope({}, globals, locals, {}))), 3);
}

TEST(Evaluation, HostModulesAreVisibleByName) {
  SARVODE_REQUIRE_OWN_START_UP();
  auto kest_module = kest::find_module(kest::String(u"kest"));
  auto python_module = kest::find_module(kest::String(u"python"));
  ASSERT_TRUE(kest_module.is<kest::Module>());
  ASSERT_TRUE(python_module.is<kest::Module>());
  EXPECT_TRUE(evaluate("return kest").isSame(kest_module));
  EXPECT_TRUE(evaluate("return python").isSame(python_module));
  // Also when the scope brings its own globals.
  EXPECT_TRUE(evaluate("return kest", scope({}, string_map({{"g", kest::Integer(1)}}), {}, {})).isSame(kest_module));
  EXPECT_TRUE(evaluate_expression("python").isSame(python_module));
}

TEST(Evaluation, ScopeLocalNamedLikeAModuleReplacesItForThatCallOnly) {
  ensurePythonReady();
  auto kest_module = kest::find_module(kest::String(u"kest"));
  ASSERT_TRUE(kest_module.is<kest::Module>());
  auto locals = string_map({{"kest", kest::Integer(5)}});
  EXPECT_EQ(integer_of(evaluate("return kest", scope({}, {}, locals, {}))), 5);
  EXPECT_EQ(integer_of(evaluate_expression("kest", scope({}, {}, locals, {}))), 5);
  EXPECT_TRUE(evaluate("return kest").isSame(kest_module));
}

TEST(Evaluation, ModulesWithADotInTheirNameAreNoGlobals) {
  ensurePythonReady();
  ASSERT_FALSE(kest::get_module(kest::String(u"sarvode_test.dotted")).isError());
  ASSERT_TRUE(kest::find_module(kest::String(u"kest.cpython")).is<kest::Module>());
  EXPECT_FALSE(boolean_of(evaluate("return 'sarvode_test.dotted' in globals()")));
  EXPECT_FALSE(boolean_of(evaluate("return 'sarvode_test' in globals()")));
  EXPECT_FALSE(boolean_of(evaluate("return 'kest.cpython' in globals()")));
  EXPECT_TRUE(boolean_of(evaluate("return 'kest' in globals()")));
}

TEST(Evaluation, HiddenModulesAreNoGlobals) {
  ensurePythonReady();
  auto hidden = kest::get_module(kest::String(u"sarvode_hidden_module"));
  auto low = kest::get_module(kest::String(u"sarvode_low_module"));
  ASSERT_FALSE(hidden.isError());
  ASSERT_FALSE(low.isError());
  hidden.as<kest::Module>().setImportance(kest::Importance::Hidden);
  low.as<kest::Module>().setImportance(kest::Importance::Low);
  EXPECT_FALSE(boolean_of(evaluate("return 'sarvode_hidden_module' in globals()")));
  EXPECT_TRUE(kest::Error::isInstance(evaluate("return sarvode_hidden_module")));
  EXPECT_TRUE(evaluate("return sarvode_low_module").isSame(low));
}

TEST(Evaluation, InlinedModuleOffersItsCallablesAndClassesAsGlobals) {
  ensurePythonReady();
  auto inlined = kest::get_module(kest::String(u"sarvode_inlined"));
  auto plain = kest::get_module(kest::String(u"sarvode_plain"));
  ASSERT_FALSE(inlined.isError());
  ASSERT_FALSE(plain.isError());
  auto cls = kest::Class_Generic::create(kest::String(u"InlinedClass"));
  inlined.as<kest::Module>().addCallable(kest::String(u"triple"),
                                         kest::make_function([](std::int64_t x) { return x * 3; }));
  inlined.as<kest::Module>().addClass(kest::String(u"InlinedClass"), cls);
  inlined.as<kest::Module>().setInlined(true);
  plain.as<kest::Module>().addCallable(kest::String(u"plain_function"),
                                       kest::make_function([](std::int64_t x) { return x; }));

  EXPECT_EQ(integer_of(evaluate("return triple(4)")), 12);
  EXPECT_TRUE(evaluate("return InlinedClass").isSame(cls));
  EXPECT_TRUE(evaluate("return sarvode_inlined").isSame(inlined));
  // A module that is not inlined offers only itself.
  EXPECT_FALSE(boolean_of(evaluate("return 'plain_function' in globals()")));
  EXPECT_TRUE(evaluate("return sarvode_plain").isSame(plain));
}

TEST(Evaluation, ModuleRegisteredAfterAnEvaluationIsVisibleInTheNext) {
  ensurePythonReady();
  EXPECT_FALSE(boolean_of(evaluate("return 'sarvode_late_module' in globals()")));
  auto late = kest::get_module(kest::String(u"sarvode_late_module"));
  ASSERT_FALSE(late.isError());
  EXPECT_TRUE(evaluate("return sarvode_late_module").isSame(late));
  EXPECT_TRUE(evaluate_expression("sarvode_late_module").isSame(late));
}

TEST(Evaluation, NothingOfOneEvaluationSurvivesIntoTheNext) {
  ASSERT_TRUE(kest::is_none(evaluate("global leftover\nleftover = 1\nplain = 2")));
  auto missing = evaluate("return leftover");
  ASSERT_TRUE(kest::Error::isInstance(missing));
  EXPECT_EQ(message_of(missing), "name 'leftover' is not defined");
  EXPECT_TRUE(kest::Error::isInstance(evaluate("return plain")));
  EXPECT_TRUE(kest::Error::isInstance(evaluate_expression("leftover")));
}

TEST(Evaluation, OutLocalCarriesAValueIntoTheNextEvaluation) {
  auto out = string_map({{"kept", kest::Integer(0)}});
  ASSERT_FALSE(kest::internal::is_error_value(evaluate("kept = 5", scope({}, {}, {}, out))));
  EXPECT_EQ(integer_of(evaluate("return kept", scope({}, {}, {}, out))), 5);
}

// --- line ends --------------------------------------------------------------------------

TEST(Evaluation, CodeWithWindowsLineEndsRuns) {
  EXPECT_EQ(integer_of(evaluate("x = 1\r\ny = 2\r\nif x:\r\n    y += 1\r\nreturn x + y")), 4);
}

TEST(Evaluation, CodeEndingWithANewlineRuns) {
  EXPECT_EQ(integer_of(evaluate("return 4\n")), 4);
  EXPECT_EQ(integer_of(evaluate("x = 4\n\n\nreturn x\r\n")), 4);
  auto out = string_map({{"a", kest::Integer(0)}});
  ASSERT_FALSE(kest::internal::is_error_value(evaluate("a = 9\n", scope({}, {}, {}, out))));
  EXPECT_EQ(integer_of(out.find(kest::String(u"a"))), 9);
}

TEST(Evaluation, CodeContainingANullCharacterIsRefusedNotCutShort) {
  const kest::String statements(std::u16string(u"return 1\0 + 1", 13));
  const kest::String expression(std::u16string(u"1\0 + 1", 6));
  ASSERT_EQ(statements.length(), 13);
  ASSERT_EQ(expression.length(), 6);
  for (const auto &result : {kest::internal::result_unwrap_lazy(language().evaluate(statements)),
                             kest::internal::result_unwrap_lazy(language().evaluateExpression(expression))}) {
    ASSERT_TRUE(kest::Error::isInstance(result)) << kest::display(result).toUtf8();
    EXPECT_EQ(message_of(result), "source code string cannot contain null bytes");
  }
  py::gil lock;
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// --- expressions ------------------------------------------------------------------------

TEST(Evaluation, ListExpressionYieldsAPythonBackedList) {
  auto result = evaluate_expression("[1, 2, 3]");
  ASSERT_TRUE(isPythonBacked(result)) << kest::display(result).toUtf8();
  py::gil lock;
  PyObject *object = pythonObjectOf(result);
  ASSERT_NE(object, nullptr);
  ASSERT_TRUE(PyList_Check(object));
  EXPECT_EQ(PyList_Size(object), 3);
}

TEST(Evaluation, ExpressionsYieldTheirHostValues) {
  EXPECT_EQ(integer_of(evaluate_expression("1 + 1")), 2);
  EXPECT_EQ(text_of(evaluate_expression("'x' * 3")), "xxx");
  auto half = evaluate_expression("1 / 4");
  ASSERT_TRUE(kest::Float::isInstance(half)) << kest::display(half).toUtf8();
  EXPECT_EQ(kest::Float::unsafeFrom(half).value(), 0.25);
}

TEST(Evaluation, ExpressionSyntaxErrorReportsPythonsPositionUnshifted) {
  for (const char *code : {"1 + * 2", "(1,\n 2 +)"}) {
    SCOPED_TRACE(code);
    const auto expected = python_syntax_position(code, "eval");
    ASSERT_EVALUATION_ERROR(error, evaluate_expression(code));
    EXPECT_EQ(error.line(), expected.first);
    EXPECT_EQ(error.column(), expected.second);
  }
}

TEST(Evaluation, ExpressionSeesLocals) {
  auto locals = string_map({{"x", kest::Integer(20)}, {"word", kest::String(u"ab")}});
  EXPECT_EQ(integer_of(evaluate_expression("x * 2 + 2", scope({}, {}, locals, {}))), 42);
  EXPECT_EQ(text_of(evaluate_expression("word * 2", scope({}, {}, locals, {}))), "abab");
}

// --- results and out-locals that have no host form ---------------------------------------

TEST(Evaluation, AResultWithoutAHostFormIsTheConversionError) {
  auto result = evaluate("return 2 ** 70");
  ASSERT_TRUE(kest::Error::isInstance(result)) << kest::display(result).toUtf8();
  const auto error = kest::Error::unsafeFrom(result);
  EXPECT_EQ(kest::qualname(kest::raw_class_of(error)).toUtf8(), "kest.Error");
  EXPECT_EQ(error.typeName().toUtf8(), "OverflowError");
  EXPECT_EQ(message_of(result), "int too big to convert");
}

TEST(Evaluation, AnOutLocalWithoutAHostFormReceivesTheConversionError) {
  auto out = string_map({{"big", kest::Integer(0)}});
  auto result = evaluate("big = 2 ** 70", scope({}, {}, {}, out));
  EXPECT_TRUE(kest::is_none(result)) << kest::display(result).toUtf8();
  auto big = out.find(kest::String(u"big"));
  ASSERT_TRUE(kest::Error::isInstance(big)) << kest::display(big).toUtf8();
  EXPECT_EQ(kest::Error::unsafeFrom(big).typeName().toUtf8(), "OverflowError");
  EXPECT_EQ(message_of(big), "int too big to convert");
}

TEST(Evaluation, TheGeneratedCallbacksAreNotVisibleToTheUsersCode) {
  auto out = string_map({{"x", kest::Integer(0)}});
  auto result = evaluate("return kest_store_result", scope({}, {}, {}, out));
  ASSERT_TRUE(kest::Error::isInstance(result)) << kest::display(result).toUtf8();
  EXPECT_EQ(message_of(result), "name 'kest_store_result' is not defined");
  result = evaluate("return kest_store_local", scope({}, {}, {}, out));
  EXPECT_EQ(message_of(result), "name 'kest_store_local' is not defined");
}

TEST(Evaluation, ACallbackKeptPastItsEvaluationRaisesWhenCalled) {
  // Reached through the caller's frame, the callback outlives its evaluation;
  // calling it then writes nothing anywhere and raises.
  auto kept = evaluate("import sys\nreturn sys._getframe(1).f_locals['kest_store_result']");
  ASSERT_TRUE(kest::I_Callable_Generic::isInstance(kept)) << kest::display(kept).toUtf8();
  auto later = kest::internal::result_unwrap_lazy(kest::I_Callable_Generic::unsafeFrom(kept).callWith({kest::Integer(1)}));
  ASSERT_TRUE(kest::Error::isInstance(later)) << kest::display(later).toUtf8();
  EXPECT_EQ(kest::Error::unsafeFrom(later).typeName().toUtf8(), "RuntimeError");
  EXPECT_EQ(message_of(later), "the evaluation that made this function has ended");
  // A later evaluation is not disturbed by it.
  EXPECT_EQ(integer_of(evaluate("return 3")), 3);
}
