// Host calls into Python on both call protocols: vectorcall on a Python whose
// stable ABI has it (3.12 and later), the argument tuple on 3.11. Every case
// runs on each protocol the running Python offers and must give the same
// results and the same errors.

#include "python_objects_test_support.hpp"

#include "runtime/call_protocol.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
/// The protocols the running Python offers.
std::vector<CallProtocol> offered() {
  std::vector<CallProtocol> protocols{CallProtocol::tuple};
  if (Py_Version >= 0x030C0000)
    protocols.push_back(CallProtocol::vectorcall);
  return protocols;
}

/// Restores the protocol a test changed.
struct protocol_restorer {
  CallProtocol saved = pythonCallProtocol();
  ~protocol_restorer() { usePythonCallProtocol(saved); }
};

kest::Any call_with(const kest::Any &callable, std::vector<kest::Any> args) {
  return value_of(kest::I_Callable_Generic::unsafeFrom(callable).callWith(args));
}

const char *name_of(CallProtocol protocol) { return protocol == CallProtocol::tuple ? "tuple" : "vectorcall"; }
} // namespace

TEST(CallProtocol, TheRunningPythonChoosesVectorcallFromThreeTwelveOn) {
  python_scope py;
  const bool has_vectorcall = Py_Version >= 0x030C0000;
  EXPECT_EQ(pythonCallProtocol(), has_vectorcall ? CallProtocol::vectorcall : CallProtocol::tuple);
  protocol_restorer restore;
  // 3.11's stable ABI has no vectorcall: asking for it changes nothing.
  EXPECT_EQ(usePythonCallProtocol(CallProtocol::vectorcall), has_vectorcall);
  EXPECT_TRUE(usePythonCallProtocol(CallProtocol::tuple));
  EXPECT_EQ(pythonCallProtocol(), CallProtocol::tuple);
}

TEST(CallProtocol, EveryKindOfCallableGivesTheSameResultsOnEachProtocol) {
  python_scope py;
  py.run("import functools\n"
         "def f(*args):\n    return ','.join(repr(a) for a in args)\n"
         "class Point:\n"
         "    def __init__(self, x, y):\n        self.x, self.y = x, y\n"
         "    def total(self, z):\n        return self.x + self.y + z\n"
         "class Adder:\n    def __call__(self, a, b):\n        return a + b\n"
         "p = Point(1, 2)\n"
         "partial = functools.partial(f, 'first')\n");
  protocol_restorer restore;
  for (auto protocol : offered()) {
    SCOPED_TRACE(name_of(protocol));
    ASSERT_TRUE(usePythonCallProtocol(protocol));
    EXPECT_EQ(host_text(call_with(py.host("f"), {})), "");
    EXPECT_EQ(host_text(call_with(py.host("f"), {kest::Integer(1), kest::String(u"two"), kest::Float(3.5), kest::None()})),
              "1,'two',3.5,None");
    // Each count up to and past the few that go without a tuple on 3.11.
    for (int count = 0; count <= 8; ++count) {
      std::vector<kest::Any> args;
      std::string expected;
      for (int i = 0; i < count; ++i) {
        args.push_back(kest::Integer(i * 10));
        expected += (i ? "," : "") + std::to_string(i * 10);
      }
      EXPECT_EQ(host_text(call_with(py.host("f"), args)), expected) << count << " arguments";
    }
    // More arguments than the stack holds.
    std::vector<kest::Any> many;
    std::string expected;
    for (int i = 0; i < 20; ++i) {
      many.push_back(kest::Integer(i));
      expected += (i ? "," : "") + std::to_string(i);
    }
    EXPECT_EQ(host_text(call_with(py.host("f"), many)), expected);
    EXPECT_EQ(host_integer(call_with(py.host("len"), {kest::String(u"four")})), 4);
    auto point = py.host("Point(3, 4)");
    EXPECT_EQ(host_integer(call_member(point, "total", {kest::Integer(5)})), 12);
    EXPECT_EQ(host_integer(call_with(py.host("p.total"), {kest::Integer(10)})), 13);
    EXPECT_EQ(host_integer(call_with(py.host("Adder()"), {kest::Integer(20), kest::Integer(22)})), 42);
    EXPECT_EQ(host_text(call_with(py.host("partial"), {kest::Integer(2)})), "'first',2");
    expect_no_python_error("the calls");
  }
}

TEST(CallProtocol, ErrorsAreTheSameOnEachProtocol) {
  python_scope py;
  py.run("def fails(a):\n    raise ValueError('bad ' + str(a))\n"
         "def two(a, b):\n    return a\n");
  protocol_restorer restore;
  for (auto protocol : offered()) {
    SCOPED_TRACE(name_of(protocol));
    ASSERT_TRUE(usePythonCallProtocol(protocol));
    auto raised = call_with(py.host("fails"), {kest::Integer(7)});
    ASSERT_TRUE(kest::Error::isInstance(raised));
    EXPECT_EQ(kest::Error::unsafeFrom(raised).typeName().toUtf8(), "ValueError");
    EXPECT_EQ(message_of(raised), "bad 7");
    auto wrong_count = call_with(py.host("two"), {kest::Integer(1)});
    ASSERT_TRUE(kest::Error::isInstance(wrong_count));
    EXPECT_EQ(kest::Error::unsafeFrom(wrong_count).typeName().toUtf8(), "TypeError");
    EXPECT_EQ(message_of(wrong_count), "two() missing 1 required positional argument: 'b'");
    expect_no_python_error("the failed calls");
  }
}

TEST(CallProtocol, ArgumentsAreReleasedAfterTheCallOnEachProtocol) {
  python_scope py;
  py.run("import sys\n"
         "kept = []\n"
         "def keep(a):\n    kept.append(a)\n"
         "def ignore(a):\n    return None\n"
         "token = object()\n");
  auto token = py.host("token");
  protocol_restorer restore;
  for (auto protocol : offered()) {
    SCOPED_TRACE(name_of(protocol));
    ASSERT_TRUE(usePythonCallProtocol(protocol));
    py.run("before = sys.getrefcount(token)");
    for (int i = 0; i < 50; ++i)
      (void)call_with(py.host("ignore"), {token});
    EXPECT_TRUE(py.truth("sys.getrefcount(token) == before")) << py.text("(before, sys.getrefcount(token))");
    (void)call_with(py.host("keep"), {token});
    EXPECT_TRUE(py.truth("sys.getrefcount(token) == before + 1 and kept[-1] is token"));
    py.run("kept.clear()");
  }
}
