// A host thread's Python thread state: made on its first lock scope, kept
// between scopes, and given back when the thread ends.

#include "python_test_support.hpp"

#include "pyobject/kest_object.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace sarvode;

namespace {
/// The calling thread's Python thread state, read inside a lock scope.
PyThreadState *state_in_a_scope() {
  py::gil lock;
  return PyGILState_GetThisThreadState();
}
} // namespace

TEST(HostThreadStates, AHostThreadKeepsOneStateAndLetsTheLockGoBetweenScopes) {
  ensurePythonReady();
  PyThreadState *first = nullptr, *second = nullptr, *between = nullptr;
  bool others_took_the_lock = false;
  std::thread([&] {
    first = state_in_a_scope();
    between = PyGILState_GetThisThreadState(); // outside any scope
    // Another thread takes the lock while this one keeps its state.
    std::thread([&] {
      py::gil lock;
      others_took_the_lock = true;
    }).join();
    second = state_in_a_scope();
  }).join();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(second, first);
  EXPECT_EQ(between, first);
  EXPECT_TRUE(others_took_the_lock);
}

TEST(HostThreadStates, AHostThreadSeesItsOwnThreadLocalValuesInItsNextCall) {
  ensurePythonReady();
  ASSERT_TRUE(test_support::run_python("import builtins, threading\nbuiltins.host_thread_local = threading.local()").ok);
  std::string own, other;
  std::thread([&] {
    ASSERT_TRUE(test_support::run_python("import builtins\nbuiltins.host_thread_local.x = 5").ok);
    own = test_support::eval_str("getattr(__import__('builtins').host_thread_local, 'x', None)");
    std::thread([&] {
      other = test_support::eval_str("getattr(__import__('builtins').host_thread_local, 'x', None)");
    }).join();
  }).join();
  EXPECT_EQ(own, "5");
  EXPECT_EQ(other, "None");
  ASSERT_TRUE(test_support::run_python("import builtins\ndel builtins.host_thread_local").ok);
}

TEST(HostThreadStates, AHostThreadsStateIsGivenBackWhenTheThreadEnds) {
  ensurePythonReady();
  ASSERT_TRUE(test_support::run_python("import builtins, threading, weakref\n"
                                       "class Held: pass\n"
                                       "builtins.held_local = threading.local()\n"
                                       "builtins.held_class = Held")
                  .ok);
  std::string alive_between_calls;
  std::thread([&] {
    ASSERT_TRUE(test_support::run_python("import builtins, weakref\n"
                                         "builtins.held_local.value = builtins.held_class()\n"
                                         "builtins.held_ref = weakref.ref(builtins.held_local.value)")
                    .ok);
    alive_between_calls = test_support::eval_str("__import__('builtins').held_ref() is not None");
  }).join();
  EXPECT_EQ(alive_between_calls, "True");
  // The thread's state went with it, and its thread-local values with the state.
  EXPECT_EQ(test_support::eval_str("__import__('builtins').held_ref() is None"), "True");
  ASSERT_TRUE(test_support::run_python("import builtins\ndel builtins.held_local, builtins.held_class, builtins.held_ref").ok);
}

TEST(HostThreadStates, AThreadThatPythonStartedKeepsItsOwnState) {
  ensurePythonReady();
  // A threading.Thread calls host code that opens lock scopes of its own:
  // they use the thread's state, and Python alone gives it back.
  std::atomic<PyThreadState *> in_scope{nullptr}, after_scope{nullptr};
  auto record = kest::make_function([&] {
    in_scope = state_in_a_scope();
    after_scope = PyGILState_GetThisThreadState();
    return 1;
  });
  {
    py::gil lock;
    auto wrapped = py::object::steal(wrapKestObjectLocked(record));
    ASSERT_TRUE(wrapped);
    ASSERT_EQ(PyDict_SetItemString(PyEval_GetBuiltins(), "record_thread_state", wrapped.get()), 0);
  }
  ASSERT_TRUE(test_support::run_python("import builtins, threading\n"
                                       "t = threading.Thread(target=builtins.record_thread_state)\n"
                                       "t.start(); t.join()\n"
                                       "del builtins.record_thread_state")
                  .ok);
  EXPECT_NE(in_scope.load(), nullptr);
  EXPECT_EQ(after_scope.load(), in_scope.load());
}
