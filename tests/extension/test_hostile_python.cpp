// Python code that does its worst: runaway recursion (also across the host),
// absurdly nested source, memory exhaustion, huge values, methods that raise
// where the bridge calls them, a broken import system, and objects kept alive
// across the process's exit. Each ends in a clear host error, and the
// interpreter stays usable.

#include "language_test_support.hpp"

#include "convert/from_python.hpp"
#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

kest::String S(const std::string &text) { return kest::String::fromUtf8(text); }

kest::EvaluationScope with_locals(const kest::HashMap &locals, const kest::Any &out = {}) {
  return kest::EvaluationScope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals),
                               out.empty() ? kest::Union<kest::I_MutableMap, kest::None>(kest::None())
                                           : kest::Union<kest::I_MutableMap, kest::None>(kest::I_MutableMap::unsafeFrom(out)));
}

void expect_no_python_error() {
  py::gil lock;
  EXPECT_EQ(PyErr_Occurred(), nullptr) << "a Python error was left pending";
  PyErr_Clear();
}

/// The interpreter still evaluates, and nothing is pending.
void expect_usable() {
  expect_no_python_error();
  EXPECT_EQ(integer_of(evaluate("x = [i * i for i in range(10)]\nreturn sum(x)")), 285);
}

void expect_error_containing(const kest::Any &result, const std::string &part) {
  ASSERT_TRUE(kest::Error::isInstance(result)) << kest::display(result).toUtf8();
  EXPECT_NE(message_of(result).find(part), std::string::npos) << message_of(result);
}

/// Runs `body` on a host thread of its own.
void on_new_thread(const std::function<void()> &body) { std::thread(body).join(); }

/// Python's recursion limit, set for the life of the object.
class recursion_limit {
public:
  explicit recursion_limit(int limit) {
    m_previous = integer_of(evaluate_expression("__import__('sys').getrecursionlimit()"));
    set(limit);
  }
  ~recursion_limit() { set(m_previous); }
  recursion_limit(const recursion_limit &) = delete;
  recursion_limit &operator=(const recursion_limit &) = delete;

private:
  static void set(std::int64_t limit) {
    EXPECT_FALSE(kest::Error::isInstance(evaluate("import sys\nsys.setrecursionlimit(" + std::to_string(limit) + ")")));
  }
  std::int64_t m_previous = 1000;
};

} // namespace

// --- recursion --------------------------------------------------------------------------

TEST(HostilePython, RecursionPastTheLimitIsAHostError) {
  expect_error_containing(evaluate("def f(n):\n    return f(n + 1)\nf(0)"), "maximum recursion depth exceeded");
  expect_usable();
  on_new_thread([] {
    expect_error_containing(evaluate("def f(n):\n    return f(n + 1)\nf(0)"), "maximum recursion depth exceeded");
  });
  expect_usable();
}

namespace {
/// A host function that calls the Python function it is given: Python -> host -> Python.
kest::HashMap call_back_locals() {
  auto call_back = kest::make_function([](kest::Any f, std::int64_t n) -> kest::Any {
    return unwrapped(kest::I_Callable_Generic::unsafeFrom(f).callWith({kest::Integer(n + 1)}));
  });
  return string_map({{"call_back", call_back}});
}

constexpr const char *recurse_through_host = "def f(n):\n    return call_back(f, n)\nf(0)";
} // namespace

TEST(HostilePython, RecursionThroughHostCallbacksIsAHostError) {
  auto locals = call_back_locals();
  // Every crossing spends native stack; the default limit stops it first.
  EXPECT_TRUE(kest::Error::isInstance(unwrapped(language().evaluate(S(recurse_through_host), with_locals(locals)))));
  expect_usable();
  on_new_thread([&] {
    EXPECT_TRUE(kest::Error::isInstance(unwrapped(language().evaluate(S(recurse_through_host), with_locals(locals)))));
  });
  expect_usable();
}

TEST(HostilePython, RecursionAcrossTheHostWithARaisedLimitStopsBeforeTheStackOverflows) {
  auto locals = call_back_locals();
  recursion_limit limit(1000000);
  // Python would let this run until the native stack overflowed.
  auto result = unwrapped(language().evaluate(S(recurse_through_host), with_locals(locals)));
  expect_error_containing(result, "maximum recursion depth exceeded");
  on_new_thread([&] {
    auto on_thread = unwrapped(language().evaluate(S(recurse_through_host), with_locals(locals)));
    expect_error_containing(on_thread, "maximum recursion depth exceeded");
  });
  expect_usable();
}

namespace {
kest::Any g_reenter; // the host function below, reachable from inside itself
}

TEST(HostilePython, ReEntryThroughEvaluationWithARaisedLimitStopsToo) {
  // The host callback evaluates Python again, which calls the callback again.
  g_reenter = kest::make_function([](std::int64_t n) -> kest::Any {
    auto locals = string_map({{"n", kest::Integer(n)}, {"reenter", g_reenter}});
    return unwrapped(language().evaluateExpression(S("reenter(n + 1)"), with_locals(locals)));
  });
  {
    recursion_limit limit(1000000);
    auto locals = string_map({{"reenter", g_reenter}});
    expect_error_containing(unwrapped(language().evaluateExpression(S("reenter(0)"), with_locals(locals))),
                            "maximum recursion depth exceeded");
  }
  g_reenter = kest::Any();
  expect_usable();
}

// --- source -------------------------------------------------------------------------------

TEST(HostilePython, SourceNestedAHundredThousandDeepIsAnError) {
  constexpr std::size_t depth = 100000;
  auto repeat = [](const std::string &part, std::size_t n) {
    std::string text;
    text.reserve(part.size() * n);
    for (std::size_t i = 0; i < n; ++i)
      text += part;
    return text;
  };
  const std::vector<std::string> sources = {
      repeat("(", depth) + "1" + repeat(")", depth),
      repeat("[", depth) + repeat("]", depth),
      repeat("{'a': ", depth) + "1" + repeat("}", depth),
      repeat("-", depth) + "1",
      repeat("not ", depth) + "1",
      repeat("lambda: ", depth) + "1",
      "1" + repeat(" + 1", depth),
      "a" + repeat(".b", depth),
      "f" + repeat("(1)", depth),
      "x" + repeat("[0]", depth),
  };
  for (const auto &source : sources) {
    SCOPED_TRACE(source.substr(0, 12));
    EXPECT_TRUE(kest::Error::isInstance(evaluate_expression(source)));
    expect_no_python_error();
    EXPECT_TRUE(kest::Error::isInstance(evaluate("return " + source)));
    expect_no_python_error();
  }
  std::string indented;
  for (std::size_t i = 0; i < 1000; ++i)
    indented += std::string(i, ' ') + "if 1:\n";
  indented += std::string(1000, ' ') + "pass\n";
  EXPECT_TRUE(kest::Error::isInstance(evaluate(indented)));
  expect_usable();
}

// --- memory and size ------------------------------------------------------------------------

TEST(HostilePython, AMemoryErrorIsAHostError) {
  // Too large for any allocator: refused before memory is asked for.
  auto result = evaluate("x = [0] * (2**61)");
  ASSERT_TRUE(kest::Error::isInstance(result)) << kest::display(result).toUtf8();
  EXPECT_TRUE(boolean_of(evaluate("try:\n    x = [0] * (2**61)\nexcept MemoryError:\n    return True\nreturn False")));
  expect_usable();
}

TEST(HostilePython, AHugeIntegerCrossingIntoTheHostIsAnOverflowError) {
  auto result = evaluate("return 10**100000");
  expect_error_containing(result, "int");
  expect_usable();
  // Back in Python, the host's error is an exception like any other.
  EXPECT_TRUE(kest::Error::isInstance(evaluate_expression("-(2**64)")));
  expect_usable();
}

TEST(HostilePython, AHugeStringCrossesIntoTheHostWhole) {
  constexpr std::int64_t size = 32 * 1024 * 1024;
  auto result = evaluate("return 'ab\\u00e9\\U0001F600' * " + std::to_string(size / 4));
  ASSERT_TRUE(kest::String::isInstance(result)) << message_of(result);
  // Five UTF-16 units per repetition: a, b, e-acute and a surrogate pair.
  EXPECT_EQ(static_cast<std::int64_t>(kest::String::unsafeFrom(result).length()), size / 4 * 5);
  expect_usable();
}

// --- methods that raise -----------------------------------------------------------------------

TEST(HostilePython, DelThatRaisesIsReportedNotLeftPending) {
  constexpr const char *del_raises = "class D:\n"
                                     "    def __del__(self):\n"
                                     "        raise ValueError('raised in __del__')\n";
  EXPECT_EQ(integer_of(evaluate(std::string(del_raises) + "d = D()\ndel d\nreturn 5")), 5);
  expect_no_python_error();
  // Held by the host, then released there.
  auto held = evaluate(std::string(del_raises) + "return D()");
  ASSERT_FALSE(kest::Error::isInstance(held)) << message_of(held);
  held = kest::Any();
  expect_usable();
  on_new_thread([&] {
    auto other = evaluate(std::string(del_raises) + "return [D(), D()]");
    ASSERT_FALSE(kest::Error::isInstance(other)) << message_of(other);
  });
  expect_usable();
}

namespace {
constexpr const char *hostile_classes = R"(
class Boom(Exception):
    pass

def boom(*args, **kwargs):
    raise Boom('boom')

raising = ['__eq__', '__ne__', '__hash__', '__len__', '__iter__', '__repr__', '__str__', '__contains__',
           '__getitem__', '__setitem__', '__delitem__', '__bool__', '__format__', '__next__', 'pop', 'clear',
           'keys', 'values', 'items', 'append', 'insert', 'extend', 'remove', 'add', 'discard', 'update',
           'count', 'index', 'copy']

def hostile(base):
    return type('Hostile' + base.__name__.capitalize(), (base,), {name: boom for name in raising})

class HostileIterable:
    __iter__ = boom
    __repr__ = boom
    __contains__ = boom

class HostileIterator:
    def __iter__(self):
        return self
    __next__ = boom
    __repr__ = boom
    __contains__ = boom

class Evil:
    __eq__ = boom
    __repr__ = boom
    def __hash__(self):
        return 1
)";

/// Every member of every proxy interface that `value` has, called with plain arguments.
std::vector<std::pair<std::string, std::function<kest::Any()>>> members_of(const kest::Any &value) {
  std::vector<std::pair<std::string, std::function<kest::Any()>>> calls;
  const kest::Any key = kest::String(u"k"), element = kest::Integer(1);
  auto add = [&](const char *name, std::function<kest::Any()> call) { calls.emplace_back(name, std::move(call)); };
  if (kest::I_Map::isInstance(value)) {
    auto map = kest::I_Map::unsafeFrom(value);
    add("map.get", [=] { return unwrapped(map.get(key)); });
    add("map.contains", [=] { return unwrapped(map.contains(key)); });
    add("map.keys", [=] { return unwrapped(map.keys()); });
    add("map.values", [=] { return unwrapped(map.values()); });
    add("map.length", [=] { return kest::Any(unwrapped(map.length())); });
  }
  if (kest::I_MutableMap::isInstance(value)) {
    auto map = kest::I_MutableMap::unsafeFrom(value);
    add("map.set", [=] { return kest::Any(unwrapped(map.setChecked(key, element))); });
    add("map.remove", [=] { return unwrapped(map.remove(key)); });
    add("map.clear", [=] { return kest::Any(unwrapped(map.clear())); });
  }
  if (kest::I_Sequence::isInstance(value)) {
    auto sequence = kest::I_Sequence::unsafeFrom(value);
    add("sequence.length", [=] { return kest::Any(unwrapped(sequence.length())); });
    add("sequence.at", [=] { return unwrapped(sequence.at(0)); });
  }
  if (kest::I_MutableSequence::isInstance(value)) {
    auto sequence = kest::I_MutableSequence::unsafeFrom(value);
    add("sequence.append", [=] { return kest::Any(unwrapped(sequence.append(element))); });
    add("sequence.appendAt", [=] { return kest::Any(unwrapped(sequence.appendAt(0, element))); });
    add("sequence.set", [=] { return kest::Any(unwrapped(sequence.set(0, element))); });
    add("sequence.extend", [=] { return kest::Any(unwrapped(sequence.extend(kest::I_Iterable::createInstance(kest::Type())))); });
    add("sequence.pop", [=] { return unwrapped(sequence.pop()); });
    add("sequence.removeAt", [=] { return unwrapped(sequence.removeAt(0)); });
    add("sequence.removeOne", [=] { return unwrapped(sequence.removeOne(element)); });
    add("sequence.clear", [=] { return kest::Any(unwrapped(sequence.clear())); });
  }
  if (kest::I_Set::isInstance(value)) {
    auto set = kest::I_Set::unsafeFrom(value);
    add("set.length", [=] { return kest::Any(unwrapped(set.length())); });
    add("set.contains", [=] { return unwrapped(set.contains(element)); });
  }
  if (kest::I_MutableSet::isInstance(value)) {
    auto set = kest::I_MutableSet::unsafeFrom(value);
    add("set.insert", [=] { return unwrapped(set.insert(element)); });
    add("set.extend", [=] { return kest::Any(unwrapped(set.extend(kest::I_Iterable::createInstance(kest::Type())))); });
    add("set.clear", [=] { return kest::Any(unwrapped(set.clear())); });
  }
  if (kest::I_Iterable::isInstance(value)) {
    auto iterable = kest::I_Iterable::unsafeFrom(value);
    add("iterable.iter", [=] { return unwrapped(iterable.iter()); });
    add("iterable.contains", [=] { return unwrapped(iterable.contains(element)); });
    add("iterable.collect", [=] { return kest::Any(unwrapped(iterable.collectImpl())); });
  }
  if (kest::I_Iterator::isInstance(value)) {
    auto iterator = kest::I_Iterator::unsafeFrom(value);
    add("iterator.next", [=] { return unwrapped(iterator.next()); });
  }
  return calls;
}
} // namespace

TEST(HostilePython, MethodsThatRaiseInsideEveryProxyMemberComeBackAsErrors) {
  auto out = string_map({{"values", kest::None()}});
  auto made = unwrapped(language().evaluate(
      S(std::string(hostile_classes) +
        "values = [hostile(dict)(), hostile(list)([1]), hostile(set)({1}), HostileIterable(), HostileIterator()]"),
      with_locals(string_map(), out)));
  ASSERT_FALSE(kest::Error::isInstance(made)) << message_of(made);
  auto values = unwrapped(kest::I_Map::unsafeFrom(out).get(S("values")));
  ASSERT_TRUE(kest::I_Sequence::isInstance(values)) << kest::display(values).toUtf8();
  int members = 0;
  for (const auto &value : kest::I_Sequence::unsafeFrom(values)) {
    for (const auto &[name, call] : members_of(value)) {
      SCOPED_TRACE(name);
      ++members;
      // Each member reaches a Python method that raises, and says so.
      auto result = call();
      expect_no_python_error();
      if (kest::I_Iterator::isInstance(result)) // an iterator is made; its first step raises
        result = unwrapped(kest::I_Iterator::unsafeFrom(result).next());
      ASSERT_TRUE(kest::Error::isInstance(result)) << kest::display(result).toUtf8();
      EXPECT_NE(message_of(result).find("boom"), std::string::npos) << message_of(result);
      expect_no_python_error();
    }
    if (kest::I_Sequence::isInstance(value)) {
      // A failed search is "not found" for indexOf, whatever the failure was.
      EXPECT_EQ(integer_of(unwrapped(kest::I_Sequence::unsafeFrom(value).indexOf(kest::Integer(1)))), -1);
      expect_no_python_error();
    }
    // Showing the value and writing it as code meet the raising __repr__.
    EXPECT_FALSE(kest::display(value).toUtf8().empty());
    expect_no_python_error();
    // A repr that fails writes no code at all.
    EXPECT_EQ(text_of(unwrapped(language().toCode(value))), "");
    expect_no_python_error();
  }
  EXPECT_GE(members, 30);
  expect_usable();
}

TEST(HostilePython, ElementsWhoseComparisonRaisesComeBackAsErrors) {
  auto out = string_map({{"values", kest::None()}, {"evil", kest::None()}});
  auto made = unwrapped(language().evaluate(S(std::string(hostile_classes) + "evil = Evil()\n"
                                                                             "values = [[Evil(), Evil()], {Evil()}]"),
                                            with_locals(string_map(), out)));
  ASSERT_FALSE(kest::Error::isInstance(made)) << message_of(made);
  auto evil = unwrapped(kest::I_Map::unsafeFrom(out).get(S("evil")));
  auto values = kest::I_Sequence::unsafeFrom(unwrapped(kest::I_Map::unsafeFrom(out).get(S("values"))));
  auto list = unwrapped(values.at(0)), set = unwrapped(values.at(1));
  EXPECT_EQ(integer_of(unwrapped(kest::I_Sequence::unsafeFrom(list).indexOf(evil))), -1);
  for (const auto &result :
       {unwrapped(kest::I_Iterable::unsafeFrom(list).contains(evil)),
        unwrapped(kest::I_MutableSequence::unsafeFrom(list).removeOne(evil)), unwrapped(kest::I_Set::unsafeFrom(set).contains(evil))}) {
    ASSERT_TRUE(kest::Error::isInstance(result)) << kest::display(result).toUtf8();
    EXPECT_NE(message_of(result).find("boom"), std::string::npos) << message_of(result);
    expect_no_python_error();
  }
  // Removing from a set treats every failure as "not there".
  EXPECT_FALSE(boolean_of(unwrapped(kest::I_MutableSet::unsafeFrom(set).remove(evil))));
  expect_no_python_error();
  EXPECT_FALSE(kest::display(list).toUtf8().empty());
  EXPECT_EQ(text_of(unwrapped(language().toCode(list))), "");
  expect_usable();
}

// --- a broken import system ------------------------------------------------------------------------

TEST(HostilePython, DeletedOrReplacedKestModuleIsMadeAgainOrSeenReplaced) {
  (void)kest::internal::run_init_handlers(); // the host functions of "kest.cpython"
  ASSERT_FALSE(kest::Error::isInstance(evaluate("import sys, kest\ndel sys.modules['kest']")));
  EXPECT_TRUE(boolean_of(evaluate("import kest.cpython\nreturn kest.cpython.current_thread() > 0")));
  ASSERT_FALSE(kest::Error::isInstance(evaluate("import sys\nsys.modules['kest'] = 42")));
  EXPECT_EQ(integer_of(evaluate("import kest\nreturn kest")), 42);
  expect_usable();
  // A host module reached by its full name is still the host's.
  EXPECT_TRUE(boolean_of(evaluate("import sys\ndel sys.modules['kest']\nfrom kest.cpython import current_thread\nreturn current_thread() > 0")));
  expect_usable();
}

TEST(HostilePython, AReplacedImportFunctionGivesErrorsNotCrashes) {
  ensurePythonReady();
  py::object original;
  {
    py::gil lock;
    original = py::object::borrow(PyDict_GetItemString(PyEval_GetBuiltins(), "__import__"));
  }
  ASSERT_TRUE(original);
  for (const char *replacement : {"None", "lambda *a, **k: 1/0", "lambda *a, **k: None"}) {
    SCOPED_TRACE(replacement);
    ASSERT_FALSE(kest::Error::isInstance(evaluate(std::string("import builtins\nbuiltins.__import__ = ") + replacement)));
    EXPECT_TRUE(kest::Error::isInstance(evaluate("import math\nreturn math.pi")) ||
                kest::None::isInstance(evaluate("import math\nreturn math")));
    expect_no_python_error();
    // Evaluation, the sandbox, sleeping and output still work without imports.
    EXPECT_EQ(integer_of(evaluate_expression("6 * 7")), 42);
    EXPECT_EQ(integer_of(unwrapped(python_language().evaluateInSandbox(S("return 2 + 3")))), 5);
    EXPECT_TRUE(kest::Error::isInstance(unwrapped(python_language().evaluateInSandbox(S("open('/tmp/x', 'w')")))));
    expect_no_python_error();
    py::gil lock;
    ASSERT_EQ(PyDict_SetItemString(PyEval_GetBuiltins(), "__import__", original.get()), 0);
  }
  expect_usable();
  EXPECT_TRUE(boolean_of(evaluate("import math\nreturn math.pi > 3")));
}

// --- lifetimes -------------------------------------------------------------------------------------------

TEST(HostilePython, AGeneratorDroppedHalfWayIsClosed) {
  auto out = string_map({{"log", kest::None()}, {"numbers", kest::None()}});
  auto made = unwrapped(language().evaluate(S("log = []\n"
                                              "def gen():\n"
                                              "    try:\n"
                                              "        for i in range(5):\n"
                                              "            yield i\n"
                                              "    finally:\n"
                                              "        log.append('closed')\n"
                                              "numbers = gen()\n"),
                                            with_locals(string_map(), out)));
  ASSERT_FALSE(kest::Error::isInstance(made)) << message_of(made);
  auto log = unwrapped(kest::I_Map::unsafeFrom(out).get(S("log")));
  {
    auto numbers = unwrapped(kest::I_Map::unsafeFrom(out).get(S("numbers")));
    ASSERT_TRUE(kest::I_Iterable::isInstance(numbers)) << kest::display(numbers).toUtf8();
    auto started = unwrapped(kest::I_Iterable::unsafeFrom(numbers).iter());
    ASSERT_TRUE(kest::I_Iterator::isInstance(started)) << kest::display(started).toUtf8();
    auto iterator = kest::I_Iterator::unsafeFrom(started);
    EXPECT_EQ(integer_of(unwrapped(iterator.next())), 0);
    EXPECT_EQ(integer_of(unwrapped(iterator.next())), 1);
    (void)kest::I_MutableMap::unsafeFrom(out).clear();
  }
  // The evaluation's globals and its function refer to each other, so the
  // generator goes with the next collection.
  ASSERT_FALSE(kest::Error::isInstance(evaluate("import gc\ngc.collect()")));
  expect_no_python_error();
  EXPECT_EQ(integer_of(unwrapped(kest::I_Sequence::unsafeFrom(log).length())), 1);
  EXPECT_EQ(text_of(unwrapped(kest::I_Sequence::unsafeFrom(log).at(0))), "closed");
  expect_usable();
}

namespace {
kest::Any g_kept_python_function; // a Python object the host keeps until the process ends
}

TEST(HostilePythonDeathTest, ObjectsKeptAcrossTheBorderWhenTheProcessExits) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        // The host keeps Python objects, and Python keeps host objects, in
        // globals of both sides; a Python thread is still running.
        g_kept_python_function = evaluate("def kept(x):\n    return x\nreturn kept");
        if (!kest::I_Callable_Generic::isInstance(g_kept_python_function))
          std::_Exit(10);
        auto host_map = string_map({{"a", kest::Integer(1)}});
        auto host_add = kest::make_function([](std::int64_t a, std::int64_t b) { return a + b; });
        auto kept = unwrapped(language().evaluate(S("import builtins, threading, time\n"
                                                    "builtins.kept_map = host_map\n"
                                                    "builtins.kept_list = [host_map, host_add]\n"
                                                    "def spin():\n"
                                                    "    while True:\n"
                                                    "        host_add(1, 2)\n"
                                                    "        time.sleep(0.001)\n"
                                                    "threading.Thread(target=spin, daemon=True).start()\n"
                                                    "return True"),
                                                  with_locals(string_map({{"host_map", host_map}, {"host_add", host_add}}))));
        if (!kest::Boolean::isInstance(kept)) {
          std::fprintf(stderr, "%s\n", message_of(kept).c_str());
          std::_Exit(11);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}
