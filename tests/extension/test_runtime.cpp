// Start-up in a process that did not start Python itself: sys.path, the
// run-code operations and the host module "python".

#include "fresh_interpreter.hpp"
#include "python_test_support.hpp"

#include "runtime/python_ready.hpp"
#include "runtime/search_paths.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <thread>

using namespace sarvode;

extern "C" void sarvode_extension_bind_api();

namespace {
int count_in_sys_path(const std::string &entry) {
  return std::stoi(test_support::eval_str("__import__('sys').path.count('" + entry + "')"));
}
} // namespace

TEST(Runtime, QueuedPathsReachSysPathOnceAtStartUp) {
  SARVODE_REQUIRE_FRESH_INTERPRETER();
  const std::string dir = "/sarvode-test/queued";
  (void)addSysPath(kest::String::fromUtf8(dir));
  (void)addSysPath(kest::String::fromUtf8(dir));
  EXPECT_EQ(pendingSysPathCount(), 2);
  ensurePythonReady();
  EXPECT_EQ(pendingSysPathCount(), 0);
  EXPECT_EQ(count_in_sys_path(dir), 1);
  // After start-up a second call changes nothing.
  EXPECT_TRUE(addSysPath(kest::String::fromUtf8(dir)).is<kest::None>());
  EXPECT_EQ(count_in_sys_path(dir), 1);
}

TEST(Runtime, AddSysPathAppendsAfterStartUp) {
  ensurePythonReady();
  (void)addSysPath(kest::String::fromUtf8("/sarvode-test/late"));
  EXPECT_EQ(test_support::eval_str("__import__('sys').path[-1]"), "/sarvode-test/late");
}

TEST(Runtime, AReplacedSysPathIsLeftAlone) {
  ASSERT_TRUE(test_support::run_python("import sys, builtins\nbuiltins.saved_path = sys.path\nsys.path = ('a', 'b')").ok);
  auto r = addSysPath(kest::String::fromUtf8("/sarvode-test/ignored"));
  EXPECT_TRUE(r.is<kest::None>());
  EXPECT_EQ(test_support::eval_str("__import__('sys').path"), "('a', 'b')");
  {
    py::gil lock;
    EXPECT_EQ(PyErr_Occurred(), nullptr);
  }
  ASSERT_TRUE(test_support::run_python("import sys, builtins\nsys.path = builtins.saved_path").ok);
}

TEST(Runtime, EnsurePythonReadyFromTwoThreadsStartsOnce) {
  SARVODE_REQUIRE_FRESH_INTERPRETER();
  (void)addSysPath(kest::String::fromUtf8("/sarvode-test/once"));
  std::thread a(ensurePythonReady), b(ensurePythonReady);
  a.join();
  b.join();
  EXPECT_TRUE(Py_IsInitialized());
  EXPECT_EQ(count_in_sys_path("/sarvode-test/once"), 1);
}

TEST(Runtime, TheLockIsFreeAfterStartUp) {
  ensurePythonReady();
  bool took = false;
  std::thread([&] {
    py::gil lock;
    took = true;
  }).join();
  EXPECT_TRUE(took);
}

TEST(Runtime, RunCodeUsesTheBuiltins) {
  ensurePythonReady();
  py::gil lock;
  auto globals = py::object::steal(PyDict_New());
  auto value = py::object::steal(runWithBuiltin("eval", "6 * 7", globals.get(), globals.get()));
  ASSERT_TRUE(value);
  EXPECT_EQ(PyLong_AsLong(value.get()), 42);
  auto none = py::object::steal(runWithBuiltin("exec", "x = 1", globals.get(), globals.get()));
  EXPECT_EQ(none.get(), Py_None);
  EXPECT_EQ(PyLong_AsLong(PyDict_GetItemString(globals.get(), "x")), 1);
  auto missing = runWithBuiltin("no_such_builtin", "1", globals.get(), globals.get());
  EXPECT_EQ(missing, nullptr);
  EXPECT_EQ(PyErr_Occurred(), nullptr); // a missing builtin sets no exception
  auto failed = runWithBuiltin("eval", "1 +", globals.get(), globals.get());
  EXPECT_EQ(failed, nullptr);
  EXPECT_NE(PyErr_Occurred(), nullptr);
  PyErr_Clear();
}

TEST(Runtime, ThePythonModuleGetsItsDocumentationAndIcon) {
  SARVODE_REQUIRE_OWN_START_UP();
  auto module = kest::find_module(kest::String(u"python"));
  ASSERT_TRUE(module.is<kest::Module>());
  auto python = module.as<kest::Module>();
  EXPECT_TRUE(python.doc().startsWith(u"Python is an easy to learn, powerful programming language."));
  EXPECT_TRUE(python.doc().contains(u"Python\u2019s elegant syntax"));
  auto icon = kest::property_of(python, kest::meta_property_untyped("$$icon"));
  ASSERT_TRUE(icon.is<kest::Property>());
  EXPECT_EQ(kest::String::unsafeFrom(icon.as<kest::Property>().storedValue()).toUtf8(), ":/kest/icons/py.svg");
}

TEST(Runtime, TheVersionFolderNamesTheLoadedInterpreter) {
  const auto minor = (Py_Version >> 16) & 0xFF;
  EXPECT_EQ(pythonVersionFolder(), "Python3" + std::to_string(minor));
}

TEST(Runtime, BindApiHasNoEffect) {
  SARVODE_REQUIRE_FRESH_INTERPRETER();
  const auto modules_before = kest::modules().size();
  const auto handlers_before = kest::internal::init_handlers_unsafe().size();
  sarvode_extension_bind_api();
  EXPECT_EQ(kest::modules().size(), modules_before);
  EXPECT_EQ(kest::internal::init_handlers_unsafe().size(), handlers_before);
  EXPECT_FALSE(Py_IsInitialized());
}
