// The compiled-code cache of evaluations: one compilation per distinct text,
// the same results and errors as without it, its bound, and its host functions.

#include "language_test_support.hpp"

#include "language/code_cache.hpp"
#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

code_cache_statistics statistics() {
  ensurePythonReady();
  py::gil lock;
  return codeCacheStatistics();
}

/// Starts each test from an empty cache of the default size, and leaves it so.
class CodeCache : public ::testing::Test {
protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    ensurePythonReady();
    py::gil lock;
    setCodeCacheCapacity(default_code_cache_capacity);
    clearCodeCache();
  }
  static void set_capacity(std::size_t capacity) {
    py::gil lock;
    setCodeCacheCapacity(capacity);
  }
};

kest::Any with_out_locals(std::initializer_list<const char *> names) {
  auto out = string_map();
  for (const char *name : names)
    EXPECT_FALSE(out.setChecked(kest::String::fromUtf8(name), kest::Integer(0)).isError());
  return kest::EvaluationScope(kest::Any(), kest::None(), kest::None(), kest::I_MutableMap::unsafeFrom(out));
}

std::string describe(const kest::Any &error) {
  if (!kest::EvaluationError::isInstance(error))
    return "<not an EvaluationError: " + kest::display(error).toUtf8() + ">";
  auto e = kest::EvaluationError::unsafeFrom(error);
  return e.message().toUtf8() + " @" + std::to_string(e.line().value_or(-1)) + ":" +
         std::to_string(e.column().value_or(-1)) + " span " + std::to_string(e.spanStart().value_or(-1)) + "+" +
         std::to_string(e.spanLength().value_or(-1));
}

kest::I_Callable_Generic cpython_function(const char16_t *name) {
  ensurePythonReady();
  (void)kest::internal::run_init_handlers();
  auto module = kest::find_module(kest::String(u"kest.cpython"));
  EXPECT_TRUE(module.is<kest::Module>());
  auto found = module.as<kest::Module>().callables().find(kest::String(name));
  EXPECT_TRUE(kest::I_Callable_Generic::isInstance(found)) << "no function " << kest::String(name).toUtf8();
  return kest::I_Callable_Generic::unsafeFrom(found);
}

std::int64_t info_entry(const char16_t *key) {
  auto info = unwrapped(cpython_function(u"code_cache_info").callWith({}));
  EXPECT_TRUE(kest::I_Map::isInstance(info)) << kest::display(info).toUtf8();
  return integer_of(unwrapped(kest::I_Map::unsafeFrom(info).get(kest::String(key))));
}

} // namespace

TEST_F(CodeCache, TheSameTextEvaluatedTenThousandTimesCompilesOnce) {
  for (int i = 0; i < 10'000; ++i)
    ASSERT_EQ(integer_of(evaluate("return 41 + 1")), 42) << "call " << i;
  const auto s = statistics();
  EXPECT_EQ(s.misses, 1);
  EXPECT_EQ(s.hits, 9'999);
  EXPECT_EQ(s.entries, 1);
}

TEST_F(CodeCache, AnExpressionEvaluatedTenThousandTimesCompilesOnce) {
  for (int i = 0; i < 10'000; ++i)
    ASSERT_EQ(integer_of(evaluate_expression("6 * 7")), 42) << "call " << i;
  EXPECT_EQ(statistics().misses, 1);
}

TEST_F(CodeCache, EachCallStillStartsFromCleanGlobalsAndTheCurrentScope) {
  const std::string code = "global seen\n"
                           "try:\n"
                           "    seen += 1\n"
                           "except NameError:\n"
                           "    seen = 1\n"
                           "return seen * base";
  for (int base = 1; base <= 3; ++base) {
    auto locals = string_map({{"base", kest::Integer(base)}});
    auto scope = kest::EvaluationScope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None());
    EXPECT_EQ(integer_of(evaluate(code, scope)), base);
  }
  EXPECT_EQ(statistics().misses, 1);
}

TEST_F(CodeCache, OutLocalKeysArePartOfTheKey) {
  EXPECT_TRUE(kest::is_none(evaluate("a = 1", with_out_locals({"a"}))));
  EXPECT_TRUE(kest::is_none(evaluate("a = 1", with_out_locals({"b"}))));
  EXPECT_TRUE(kest::is_none(evaluate("a = 1", with_out_locals({"a"}))));
  const auto s = statistics();
  EXPECT_EQ(s.entries, 2);
  EXPECT_EQ(s.misses, 2);
  EXPECT_EQ(s.hits, 1);
}

TEST_F(CodeCache, OutLocalsAreStillWrittenFromACachedText) {
  for (int round = 0; round < 3; ++round) {
    auto out = string_map({{"total", kest::Integer(round)}});
    auto scope = kest::EvaluationScope(kest::Any(), kest::None(), kest::None(), kest::I_MutableMap::unsafeFrom(out));
    (void)evaluate("total = total + 10", scope);
    EXPECT_EQ(integer_of(unwrapped(kest::I_Map::unsafeFrom(out).get(kest::String(u"total")))), round + 10);
  }
  EXPECT_EQ(statistics().misses, 1);
}

TEST_F(CodeCache, StatementsAndAnExpressionOfTheSameTextAreApart) {
  EXPECT_TRUE(kest::is_none(evaluate("1 + 1")));
  EXPECT_EQ(integer_of(evaluate_expression("1 + 1")), 2);
  EXPECT_EQ(statistics().entries, 2);
}

TEST_F(CodeCache, AnExpressionKeepsTheLeadingBlanksThatEvalSkips) {
  EXPECT_EQ(integer_of(evaluate_expression(" \t 1 + 1")), 2);
  EXPECT_EQ(integer_of(evaluate_expression(" \t 1 + 1")), 2);
  EXPECT_EQ(statistics().misses, 1);
}

TEST_F(CodeCache, ASyntaxErrorComesBackIdenticalWithoutACompile) {
  const auto first = describe(evaluate("x = (1 +\ny = 2"));
  const auto second = describe(evaluate("x = (1 +\ny = 2"));
  EXPECT_NE(first.find('@'), std::string::npos) << first;
  EXPECT_EQ(first, second);
  const auto s = statistics();
  EXPECT_EQ(s.misses, 1);
  EXPECT_EQ(s.hits, 1);

  const auto expression_first = describe(evaluate_expression("1 +"));
  EXPECT_EQ(expression_first, describe(evaluate_expression("1 +")));
  EXPECT_EQ(statistics().misses, 2);
}

TEST_F(CodeCache, AnIndentationErrorKeepsItsClass) {
  const auto first = describe(evaluate_expression("1\n  2"));
  EXPECT_EQ(first, describe(evaluate_expression("1\n  2")));
  EXPECT_EQ(describe(evaluate("if True:\npass")), describe(evaluate("if True:\npass")));
  EXPECT_NE(describe(evaluate("if True:\npass")).find("indented block"), std::string::npos);
}

TEST_F(CodeCache, ARuntimeErrorIsNotCachedAsAnError) {
  // The text compiles; its failure happens when it runs, on every call.
  for (int i = 0; i < 3; ++i)
    EXPECT_NE(describe(evaluate("return 1 / 0")).find("division by zero"), std::string::npos);
  const auto s = statistics();
  EXPECT_EQ(s.misses, 1);
  EXPECT_EQ(s.hits, 2);
}

TEST_F(CodeCache, TheLeastRecentlyUsedTextIsDroppedAtTheBound) {
  set_capacity(3);
  for (const char *text : {"1", "2", "3"})
    (void)evaluate_expression(text);
  (void)evaluate_expression("1"); // now "2" is the least recently used
  (void)evaluate_expression("4");
  EXPECT_EQ(statistics().entries, 3);
  EXPECT_EQ(statistics().misses, 4);
  (void)evaluate_expression("1"); // kept
  EXPECT_EQ(statistics().misses, 4);
  EXPECT_EQ(integer_of(evaluate_expression("2")), 2); // dropped: compiled again
  EXPECT_EQ(statistics().misses, 5);
  EXPECT_EQ(statistics().entries, 3);
}

TEST_F(CodeCache, ShrinkingDropsEntriesAndZeroKeepsNone) {
  for (const char *text : {"1", "2", "3", "4"})
    (void)evaluate_expression(text);
  set_capacity(2);
  EXPECT_EQ(statistics().entries, 2);
  set_capacity(0);
  EXPECT_EQ(statistics().entries, 0);
  EXPECT_EQ(integer_of(evaluate_expression("5 + 5")), 10);
  EXPECT_EQ(integer_of(evaluate_expression("5 + 5")), 10);
  EXPECT_EQ(statistics().entries, 0);
  EXPECT_EQ(statistics().misses, 6);
  const auto error = describe(evaluate("x = ("));
  EXPECT_EQ(error, describe(evaluate("x = (")));
  EXPECT_NE(error.find("never closed"), std::string::npos) << error;
}

TEST_F(CodeCache, EightThreadsEvaluatingAMixOfTextsGetTheirOwnResults) {
  constexpr int texts = 100;
  constexpr int rounds = 20;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([t, &wrong] {
      for (int round = 0; round < rounds; ++round)
        for (int i = 0; i < texts; ++i) {
          const int n = (i * 7 + t + round) % texts;
          const bool expression = (n + round) % 2 == 0;
          const auto result = expression ? evaluate_expression(std::to_string(n) + " * 2")
                                         : evaluate("return " + std::to_string(n) + " * 2");
          if (!kest::Integer::isInstance(result) || kest::Integer::unsafeFrom(result).value() != n * 2)
            ++wrong;
        }
    });
  for (auto &thread : threads)
    thread.join();
  EXPECT_EQ(wrong.load(), 0);
  const auto s = statistics();
  EXPECT_EQ(s.entries, 2 * texts);
  EXPECT_EQ(s.misses, 2 * texts);
  EXPECT_EQ(s.hits + s.misses, 8 * rounds * texts);
}

TEST_F(CodeCache, TheHostFunctionsClearResizeAndReport) {
  (void)cpython_function(u"clear_code_cache"); // start-up may evaluate code of its own
  reset();
  (void)evaluate_expression("1");
  (void)evaluate_expression("2");
  EXPECT_EQ(info_entry(u"entries"), 2);
  EXPECT_EQ(info_entry(u"capacity"), 256);
  (void)unwrapped(cpython_function(u"clear_code_cache").callWith({}));
  EXPECT_EQ(info_entry(u"entries"), 0);
  EXPECT_EQ(info_entry(u"misses"), 0);
  (void)unwrapped(cpython_function(u"set_code_cache_size").callWith({kest::Integer(10)}));
  EXPECT_EQ(info_entry(u"capacity"), 10);
  const auto refused = unwrapped(cpython_function(u"set_code_cache_size").callWith({kest::Integer(-1)}));
  EXPECT_EQ(message_of(refused), "The code cache size cannot be negative.");
  EXPECT_EQ(info_entry(u"capacity"), 10);
}

TEST_F(CodeCache, PythonCodeCanClearTheCache) {
  (void)cpython_function(u"clear_code_cache"); // the module's functions are registered at start-up
  (void)evaluate_expression("1");
  EXPECT_EQ(integer_of(evaluate("import kest.cpython\n"
                                "kest.cpython.clear_code_cache()\n"
                                "return kest.cpython.code_cache_info()['entries']")),
            0);
}

// --- The same host string run again -------------------------------------------
// A thread remembers the string it ran last and finds its entry by identity.
// These run one String object again and again, as a host that keeps its text.

namespace {
kest::Any run(const kest::String &code, const kest::Any &with = {}) { return unwrapped(language().evaluate(code, with)); }
kest::Any run_expression(const kest::String &code) { return unwrapped(language().evaluateExpression(code)); }
} // namespace

TEST_F(CodeCache, TheSameStringRunAgainIsAHitAndIsCompiledAgainAfterAClear) {
  const kest::String code(u"return 6 * 7");
  EXPECT_EQ(integer_of(run(code)), 42);
  EXPECT_EQ(integer_of(run(code)), 42);
  EXPECT_EQ(statistics().misses, 1);
  EXPECT_EQ(statistics().hits, 1);
  reset();
  EXPECT_EQ(integer_of(run(code)), 42);
  EXPECT_EQ(statistics().misses, 1) << "the entry went with the clear";
  EXPECT_EQ(statistics().entries, 1);
}

TEST_F(CodeCache, TheSameStringWithOtherOutLocalsIsAnotherText) {
  const kest::String code(u"a = 1\nb = 2");
  auto first = with_out_locals({"a"});
  auto second = with_out_locals({"b"});
  EXPECT_TRUE(kest::is_none(run(code, first)));
  EXPECT_TRUE(kest::is_none(run(code, second)));
  EXPECT_TRUE(kest::is_none(run(code, first)));
  EXPECT_EQ(statistics().misses, 2);
  EXPECT_EQ(statistics().hits, 1);
  const auto out = [](const kest::Any &scope, const char16_t *name) {
    return integer_of(unwrapped(kest::I_Map::unsafeFrom(kest::EvaluationScope::unsafeFrom(scope).outLocals())
                                    .get(kest::String(name))));
  };
  EXPECT_EQ(out(first, u"a"), 1);
  EXPECT_EQ(out(second, u"b"), 2);
}

TEST_F(CodeCache, TheSameStringAsStatementsAndAsAnExpressionAreApart) {
  const kest::String code(u"1 + 1");
  EXPECT_TRUE(kest::is_none(run(code)));
  EXPECT_EQ(integer_of(run_expression(code)), 2);
  EXPECT_TRUE(kest::is_none(run(code)));
  EXPECT_EQ(integer_of(run_expression(code)), 2);
  EXPECT_EQ(statistics().misses, 2);
  EXPECT_EQ(statistics().hits, 2);
}

TEST_F(CodeCache, TheSameStringDroppedAtTheBoundIsCompiledAgain) {
  set_capacity(1);
  const kest::String kept(u"3 * 3");
  EXPECT_EQ(integer_of(run_expression(kept)), 9);
  EXPECT_EQ(integer_of(run_expression(kest::String(u"4 * 4"))), 16); // drops "3 * 3"
  EXPECT_EQ(integer_of(run_expression(kept)), 9);
  EXPECT_EQ(statistics().misses, 3);
  EXPECT_EQ(statistics().hits, 0);
  set_capacity(0);
  EXPECT_EQ(integer_of(run_expression(kept)), 9);
  EXPECT_EQ(integer_of(run_expression(kept)), 9);
  EXPECT_EQ(statistics().misses, 5) << "a cache that keeps nothing compiles each time";
}

TEST_F(CodeCache, TheSameStringWithASyntaxErrorFailsAlikeEachTime) {
  const kest::String code(u"x = (1 +\ny = 2");
  const auto first = describe(run(code));
  EXPECT_EQ(describe(run(code)), first);
  EXPECT_NE(first.find("never closed"), std::string::npos) << first;
  EXPECT_EQ(statistics().misses, 1);
  EXPECT_EQ(statistics().hits, 1);
}

TEST_F(CodeCache, ThreadsRunningTheirOwnStringsAgainGetTheirOwnResults) {
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t, &wrong] {
      const auto mine = kest::String::fromUtf8("return " + std::to_string(t) + " + 100");
      const auto shared = kest::String(u"return 5");
      for (int round = 0; round < 200; ++round) {
        const auto &code = round % 3 == 0 ? shared : mine;
        const auto result = run(code);
        const std::int64_t expected = round % 3 == 0 ? 5 : t + 100;
        if (!kest::Integer::isInstance(result) || kest::Integer::unsafeFrom(result).value() != expected)
          ++wrong;
      }
    });
  for (auto &thread : threads)
    thread.join();
  EXPECT_EQ(wrong.load(), 0);
  const auto s = statistics();
  EXPECT_EQ(s.hits + s.misses, 4 * 200);
  EXPECT_EQ(s.entries, 4 + 1) << "each thread's own text and the text all share";
  EXPECT_EQ(s.misses, 4 + 1);
}

// --- Compiling as the builtin compile does ----------------------------------------

TEST_F(CodeCache, ACodingCommentInTheTextIsIgnored) {
  // The text reaches the compiler decoded, as a str given to compile: a
  // comment naming another encoding changes nothing.
  EXPECT_EQ(text_of(evaluate("# -*- coding: latin-1 -*-\nreturn 'caf\xc3\xa9'")), "caf\xc3\xa9");
  EXPECT_EQ(text_of(evaluate_expression("'\xc3\xa9t\xc3\xa9' # coding: cp1252")), "\xc3\xa9t\xc3\xa9");
}

TEST_F(CodeCache, AnOutLocalNameWithANullCharacterIsRefusedAsCompileRefusesIt) {
  auto out = string_map();
  ASSERT_FALSE(out.setChecked(kest::String(std::u16string(u"a\0b", 3)), kest::Integer(0)).isError());
  const auto with = kest::EvaluationScope(kest::Any(), kest::None(), kest::None(), kest::I_MutableMap::unsafeFrom(out));
  const auto refused = evaluate("x = 1", with);
  EXPECT_TRUE(kest::Error::isInstance(refused));
  EXPECT_NE(message_of(refused).find("null bytes"), std::string::npos) << message_of(refused);
}

TEST_F(CodeCache, TheFirstCompileLeavesNoErrorAndAFailedOneItsOwn) {
  EXPECT_EQ(integer_of(evaluate_expression("(lambda: 5)()")), 5);
  const auto bad = describe(evaluate_expression("1 +"));
  EXPECT_NE(bad.find("invalid syntax"), std::string::npos) << bad;
  ensurePythonReady();
  py::gil lock;
  EXPECT_FALSE(PyErr_Occurred());
}
