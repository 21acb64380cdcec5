// A host that started Python itself before the extension's first use.

#include "fresh_interpreter.hpp"
#include "python_test_support.hpp"
#include "temp_folder.hpp"

#include "runtime/python_ready.hpp"
#include "runtime/sandbox.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <fstream>

using namespace sarvode;

TEST(HostStartedPython, NoHookNoQueuedPathsAndThePythonModuleIsLeftAlone) {
  SARVODE_REQUIRE_FRESH_INTERPRETER();
  (void)addSysPath(kest::String::fromUtf8("/sarvode-test/queued-before-host"));
  // The host starts the interpreter on its own.
  Py_InitializeEx(0);
  (void)PyEval_SaveThread();

  ensurePythonReady();
  EXPECT_EQ(test_support::eval_str("'/sarvode-test/queued-before-host' in __import__('sys').path"), "False");
  EXPECT_EQ(pendingSysPathCount(), 1);
  auto python = kest::find_module(kest::String(u"python"));
  EXPECT_TRUE(!python.is<kest::Module>() || python.as<kest::Module>().doc().empty());
  // No standard entries either; the importer of host modules is installed all the same.
  EXPECT_TRUE(kest::find_module(kest::String(u"python.builtins")).is<kest::None>());
  EXPECT_EQ(test_support::eval_str("type(__import__('kest')).__name__"), "module");

  // Without the hook the sandbox has no effect.
  test_support::temp_folder tmp;
  std::ofstream(tmp.file("victim.txt")) << "x";
  {
    SandboxScope scope;
    EXPECT_TRUE(test_support::run_python("import os\nos.remove('" + tmp.file("victim.txt") + "')").ok);
  }
  EXPECT_FALSE(std::filesystem::exists(tmp.file("victim.txt")));
}
