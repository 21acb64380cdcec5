// An evaluation's statements are the user's module level: what they define
// has the names exec would give it, and their frame is "<module>".

#include "language_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>

using namespace sarvode::test_support;

namespace {

constexpr const char *definitions = "import sys\n"
                                    "def f():\n"
                                    "    def g(): pass\n"
                                    "    return g\n"
                                    "class E:\n"
                                    "    def m(self): pass\n"
                                    "    class I:\n"
                                    "        def n(self): pass\n"
                                    "    here = __qualname__\n"
                                    "lam = lambda: 0\n"
                                    "inner = next(sys._getframe().f_code.co_qualname for _ in range(1))\n"
                                    "frame = sys._getframe().f_code\n";

std::string names_of(kest::Any result) { return text_of(result); }

constexpr const char *report = "return ','.join([f.__qualname__, f.__code__.co_qualname, f().__qualname__,\n"
                               "    E.__qualname__, E.m.__qualname__, E.I.__qualname__, E.I.n.__qualname__, E.here,\n"
                               "    lam.__qualname__, inner, frame.co_name, frame.co_qualname])\n";

constexpr const char *as_exec_names = "f,f,f.<locals>.g,E,E.m,E.I,E.I.n,E,<lambda>,<genexpr>,<module>,<module>";

} // namespace

TEST(ModuleLevel, WhatStatementsDefineHasTheNamesExecGivesIt) {
  EXPECT_EQ(names_of(evaluate(std::string(definitions) + report)), as_exec_names);
}

TEST(ModuleLevel, TheNamesAreTheSameInTheSandbox) {
  const auto result = unwrapped(python_language().evaluateInSandbox(
      kest::String::fromUtf8(std::string(definitions) + report), kest::Any()));
  EXPECT_EQ(names_of(result), as_exec_names);
}

TEST(ModuleLevel, AUserFunctionNamedLikeTheHolderIsLeftAlone) {
  // Only the generated function that holds the statements is renamed.
  EXPECT_EQ(names_of(evaluate("def kest_outer(): pass\n"
                              "return kest_outer.__qualname__ + ',' + kest_outer.__code__.co_name")),
            "kest_outer,kest_outer");
}

TEST(ModuleLevel, ATracebackNamesTheModuleLevel) {
  EXPECT_EQ(names_of(evaluate("import traceback\n"
                              "def f():\n    raise ValueError('deep')\n"
                              "try:\n    f()\n"
                              "except ValueError as e:\n"
                              "    return ','.join(s.name for s in traceback.extract_tb(e.__traceback__))\n")),
            "<module>,f");
}
