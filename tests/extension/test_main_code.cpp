// run_main: the code a holder module staged runs as __main__ with no Python
// frame beneath it, and what it raised is kept for the holder.

#include "language_test_support.hpp"

#include "language/main_code.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

bool failed(const kest::Any &value) { return kest::Error::isInstance(value); }

/// Makes the holder module "main_code_holder" with `target` (a Python expression) staged.
void stage(const std::string &target) {
  ASSERT_FALSE(failed(evaluate("import sys, types\n"
                        "holder = sys.modules.setdefault('main_code_holder', types.ModuleType('main_code_holder'))\n"
                        "holder.main_error = 'unset'\n"
                        "holder.main_target = " + target + "\n")));
}

/// Runs `statements` with `holder` bound; their `return` is the result.
kest::Any with_holder(const std::string &statements) {
  return evaluate("import sys\nholder = sys.modules['main_code_holder']\n" + statements);
}

kest::Any holder_says(const std::string &expression) { return with_holder("return " + expression); }

TEST(MainCode, NothingStagedIsAnError) {
  stage("None");
  EXPECT_EQ(message_of(runStagedMain(kest::String(u"main_code_holder"), false)),
            "nothing is staged in main_code_holder.main_target");
  EXPECT_EQ(integer_of(holder_says("int(holder.main_error == 'unset')")), 1);
}

TEST(MainCode, SomethingNeitherCodeNorCallableIsRefusedAndKept) {
  stage("42");
  EXPECT_EQ(message_of(runStagedMain(kest::String(u"main_code_holder"), false)),
            "main_code_holder.main_target is neither code, nor a callable, nor (callable, arguments)");
  EXPECT_EQ(integer_of(holder_says("int(holder.main_target == 42 and holder.main_error == 'unset')")), 1);
}

TEST(MainCode, ACallableWithItsArgumentsIsCalledWithThem) {
  stage("(lambda a, b: setattr(sys.modules['main_code_holder'], 'called_with', (a, b)), (1, 'two'))");
  EXPECT_FALSE(failed(runStagedMain(kest::String(u"main_code_holder"), false)));
  EXPECT_EQ(integer_of(holder_says("int(holder.called_with == (1, 'two') and holder.main_error is None)")), 1);
}

TEST(MainCode, AMissingHolderIsAnErrorWithNothingPending) {
  const auto refused = runStagedMain(kest::String(u"no_such_holder_module"), false);
  EXPECT_NE(message_of(refused).find("no_such_holder_module"), std::string::npos) << message_of(refused);
  py::gil lock;
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST(MainCode, CodeRunsInMainWithNoFrameBeneath) {
  stage("compile('import sys\\nmain_code_frame_back = sys._getframe().f_back\\n', 'staged.py', 'exec')");
  EXPECT_FALSE(failed(runStagedMain(kest::String(u"main_code_holder"), false)));
  EXPECT_EQ(integer_of(holder_says("int(sys.modules['__main__'].main_code_frame_back is None and "
                                   "holder.main_error is None and holder.main_target is None)")),
            1);
}

TEST(MainCode, TheExceptionIsKeptWithItsTraceback) {
  stage("compile('x = 1\\nraise ValueError(\"kept\")\\n', 'staged.py', 'exec')");
  EXPECT_FALSE(failed(runStagedMain(kest::String(u"main_code_holder"), false)));
  EXPECT_EQ(integer_of(with_holder("e = holder.main_error\n"
                                   "tb = e.__traceback__\n"
                                   "ok = type(e) is ValueError and str(e) == 'kept' and tb.tb_lineno == 2 and "
                                   "tb.tb_frame.f_code.co_name == '<module>' and tb.tb_next is None\n"
                                   "holder.main_error = None\n"
                                   "return int(ok)")),
            1);
}

TEST(MainCode, ACallableIsCalled) {
  stage("lambda: sys.modules['main_code_holder'].__dict__.update(called=True)");
  EXPECT_FALSE(failed(runStagedMain(kest::String(u"main_code_holder"), false)));
  EXPECT_EQ(integer_of(holder_says("int(holder.called is True and holder.main_error is None)")), 1);
}

TEST(MainCode, SandboxedCodeIsJudged) {
  stage("compile('import os\\nos.remove(\"/no/such/file/at/all\")\\n', 'staged.py', 'exec')");
  EXPECT_FALSE(failed(runStagedMain(kest::String(u"main_code_holder"), true)));
  EXPECT_EQ(integer_of(with_holder("e = holder.main_error\nholder.main_error = None\n"
                                   "return int(type(e) is PermissionError)")),
            1);
}

TEST(MainCode, AStagedTextIsCompiledAndRunsInMainWithNoFrameBeneath) {
  stage("('import sys\\nmain_code_frame_back = sys._getframe().f_back\\n"
        "def main_code_f(): pass\\n', 'staged_text.py')");
  EXPECT_FALSE(failed(runStagedMain(kest::String(u"main_code_holder"), false)));
  EXPECT_EQ(integer_of(holder_says("int(sys.modules['__main__'].main_code_frame_back is None and "
                                   "sys.modules['__main__'].main_code_f.__code__.co_filename == 'staged_text.py' and "
                                   "holder.main_error is None and holder.main_target is None)")),
            1);
}

TEST(MainCode, AStagedTextWithASyntaxErrorKeepsTheErrorWithNoFrames) {
  stage("('ok = 1\\nx = (\\n', 'staged_text.py')");
  EXPECT_FALSE(failed(runStagedMain(kest::String(u"main_code_holder"), false)));
  EXPECT_EQ(integer_of(with_holder("e = holder.main_error\n"
                                   "ok = type(e) is SyntaxError and e.filename == 'staged_text.py' and e.lineno == 2 "
                                   "and e.__traceback__ is None and holder.main_target is None\n"
                                   "holder.main_error = None\n"
                                   "return int(ok)")),
            1);
}

TEST(MainCode, StagedBytesAreDecodedByTheirCodingComment) {
  stage("(b'# -*- coding: latin-1 -*-\\nimport sys\\nsys.modules[\"main_code_holder\"].text = \"caf\\xe9\"\\n', "
        "'staged_text.py')");
  EXPECT_FALSE(failed(runStagedMain(kest::String(u"main_code_holder"), false)));
  EXPECT_EQ(integer_of(holder_says("int(holder.text == 'caf\\u00e9' and holder.main_error is None)")), 1);
}

TEST(MainCode, AStagedTextIsJudgedInTheSandboxLikeCode) {
  stage("('import os\\nos.remove(\"/no/such/file/at/all\")\\n', 'staged_text.py')");
  EXPECT_FALSE(failed(runStagedMain(kest::String(u"main_code_holder"), true)));
  EXPECT_EQ(integer_of(with_holder("e = holder.main_error\nholder.main_error = None\n"
                                   "return int(type(e) is PermissionError)")),
            1);
}

TEST(MainCode, APairOfOtherKindsIsRefusedAndKept) {
  // Neither (source, filename) nor (callable, arguments).
  stage("('pass', 7)");
  EXPECT_EQ(message_of(runStagedMain(kest::String(u"main_code_holder"), false)),
            "main_code_holder.main_target is neither code, nor a callable, nor (callable, arguments)");
  EXPECT_EQ(integer_of(holder_says("int(holder.main_target == ('pass', 7) and holder.main_error == 'unset')")), 1);
}

} // namespace
