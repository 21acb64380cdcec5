// Evaluations run their compiled code as the builtin exec runs it: audit hooks
// hear one "exec" event with the code object, the globals name the builtins,
// and code running with builtins of its own passes them on to an evaluation
// it starts. Each test runs on both paths: the code run directly, and through
// the builtin (kept for a Python whose audit function cannot be found).

#include "language_test_support.hpp"

#include "runtime/python_ready.hpp"
#include "runtime/run_code.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

/// Runs the test body once on each path and restores the direct one.
class RunCode : public ::testing::TestWithParam<bool> {
protected:
  void SetUp() override {
    ensurePythonReady();
    py::gil lock;
    ASSERT_TRUE(runCodeThroughBuiltin(GetParam())) << "this Python has no path that runs code directly";
  }
  void TearDown() override {
    py::gil lock;
    (void)runCodeThroughBuiltin(false);
  }
};

/// Records every "exec" event in the module "audit_record" from now on: the
/// name of the code object's type and the code's first line. Audit hooks
/// cannot be removed; each test has a process of its own.
void record_exec_events() {
  ASSERT_TRUE(kest::is_none(evaluate("import sys, types\n"
                                     "record = types.ModuleType('audit_record')\n"
                                     "record.events = []\n"
                                     "sys.modules['audit_record'] = record\n"
                                     "def hook(event, args, events=record.events):\n"
                                     "    if event == 'exec':\n"
                                     "        events.append((type(args[0]).__name__, len(args)))\n"
                                     "sys.addaudithook(hook)\n")));
}

std::int64_t exec_events() {
  // This evaluation is heard too: its own event is the last one.
  return integer_of(evaluate("import audit_record\nreturn len(audit_record.events) - 1"));
}
} // namespace

TEST_P(RunCode, AuditHooksHearOneExecEventWithTheCodeForEachEvaluation) {
  record_exec_events();
  const auto before = exec_events();
  EXPECT_EQ(integer_of(evaluate("return 6 * 7")), 42);
  EXPECT_EQ(integer_of(evaluate_expression("40 + 2")), 42);
  EXPECT_EQ(exec_events() - before, 3) << "two evaluations and the previous count";
  EXPECT_TRUE(boolean_of(evaluate("import audit_record\n"
                                  "return all(e == ('code', 1) for e in audit_record.events)")));
}

TEST_P(RunCode, AHookThatRaisesStopsTheEvaluationWithItsError) {
  ASSERT_TRUE(kest::is_none(evaluate("import sys\n"
                                     "def refuse(event, args):\n"
                                     "    if event == 'exec' and args[0].co_consts and 'refused' in args[0].co_consts:\n"
                                     "        raise RuntimeError('no exec here')\n"
                                     "sys.addaudithook(refuse)\n")));
  const auto refused = evaluate_expression("'refused'");
  EXPECT_TRUE(kest::Error::isInstance(refused));
  EXPECT_NE(message_of(refused).find("no exec here"), std::string::npos) << message_of(refused);
  EXPECT_EQ(text_of(evaluate_expression("'allowed'")), "allowed");
}

TEST_P(RunCode, TheGlobalsNameTheInterpretersBuiltins) {
  EXPECT_TRUE(boolean_of(evaluate("import builtins\nreturn globals()['__builtins__'] is builtins.__dict__")));
  EXPECT_TRUE(boolean_of(evaluate_expression("globals()['__builtins__'] is __import__('builtins').__dict__")));
}

TEST_P(RunCode, CodeWithBuiltinsOfItsOwnPassesThemToTheEvaluationItStarts) {
  // exec with its own builtins calls the host, which evaluates: the
  // evaluation's globals name those builtins, as the builtin exec names them.
  EXPECT_EQ(integer_of(evaluate("import builtins, kest.cpython\n"
                                "own = dict(builtins.__dict__, marker=7)\n"
                                "space = {'__builtins__': own, 'language': kest.cpython.CPythonLanguage.instance}\n"
                                "exec(\"found = language.evaluateExpression('marker')\", space)\n"
                                "return space['found']")),
            7);
  // The next evaluation from the host has the interpreter's builtins again.
  const auto missing = evaluate_expression("marker");
  EXPECT_TRUE(kest::Error::isInstance(missing));
  EXPECT_NE(message_of(missing).find("marker"), std::string::npos) << message_of(missing);
}

INSTANTIATE_TEST_SUITE_P(BothPaths, RunCode, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &param) {
                           return param.param ? std::string("ThroughTheBuiltin") : std::string("Directly");
                         });
