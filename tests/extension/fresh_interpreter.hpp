#pragma once
// Tests that need an interpreter nobody started yet. CTest runs every test in
// a process of its own; run directly, later tests of one process skip.

#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include <gtest/gtest.h>

#define SARVODE_REQUIRE_FRESH_INTERPRETER()                                                        \
  do {                                                                                             \
    if (Py_IsInitialized())                                                                        \
      GTEST_SKIP() << "needs a process whose interpreter has not started (run it through ctest)"; \
  } while (0)

/// Tests of what the extension's own start-up sets up (the audit hook, the
/// module "python") skip in a process whose interpreter a host started.
#define SARVODE_REQUIRE_OWN_START_UP()                                                             \
  do {                                                                                             \
    sarvode::ensurePythonReady();                                                                  \
    if (!sarvode::sandboxHookInstalled())                                                          \
      GTEST_SKIP() << "the interpreter of this process was started by the host (run it through ctest)"; \
  } while (0)
