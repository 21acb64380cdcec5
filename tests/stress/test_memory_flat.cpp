// Memory stays flat: many evaluations of every kind, and many round trips of
// every convertible kind, leave the host's live objects, Python's allocated
// blocks and the resident memory where they were after a warm-up.

#include "language_test_support.hpp"
#include "stress_support.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

kest::String S(const std::string &text) { return kest::String::fromUtf8(text); }

struct memory_reading {
  std::int64_t live_objects = 0;
  std::int64_t python_blocks = 0;
  std::int64_t resident = 0;
};

memory_reading read_memory() {
  {
    py::gil lock;
    auto gc = py::object::steal(PyImport_ImportModule("gc"));
    auto collected = gc ? py::object::steal(PyObject_CallMethod(gc.get(), "collect", nullptr)) : py::object();
    EXPECT_TRUE(collected);
    PyErr_Clear();
  }
  return {kest::internal::object_value::live_count(), python_allocated_blocks(), resident_bytes()};
}

// Slack for what a run may keep that is not a leak: an interned name, a type
// cache entry, an allocator's free list. A leak of one object per call would
// be 100,000 here (5,000 under the sanitizers).
constexpr std::int64_t live_object_slack = 16;
constexpr std::int64_t python_block_slack = 1000;
constexpr std::int64_t resident_slack = 2 * 1024 * 1024;

/// Runs `operation` over a warm-up and then the full count; every
/// operation returns whether its result was right.
void expect_flat(const char *what, const std::function<bool(std::int64_t)> &operation) {
  ensurePythonReady();
  const std::int64_t warm_up = stress_count(5000, 300);
  const std::int64_t total = stress_count(100000, 5000);
  std::int64_t wrong = 0;
  for (std::int64_t i = 0; i < warm_up; ++i)
    wrong += operation(i) ? 0 : 1;
  const auto before = read_memory();
  std::string curve;
  for (std::int64_t i = 0; i < total; ++i) {
    wrong += operation(i) ? 0 : 1;
    if ((i + 1) % 10000 == 0)
      curve += " " + std::to_string((resident_bytes() - before.resident) / 1024);
  }
  const auto after = read_memory();
  EXPECT_EQ(wrong, 0) << what << ": results that were not right";
  EXPECT_LE(after.live_objects - before.live_objects, live_object_slack)
      << what << ": host objects " << before.live_objects << " -> " << after.live_objects;
  EXPECT_LE(after.python_blocks - before.python_blocks, python_block_slack)
      << what << ": Python blocks " << before.python_blocks << " -> " << after.python_blocks;
  // AddressSanitizer keeps freed memory in quarantine, so only a plain build
  // can tell the resident size.
  if (!slow_build) {
    EXPECT_LE(after.resident - before.resident, resident_slack)
        << what << ": resident " << before.resident << " -> " << after.resident;
  }
  std::printf("%s: %lld calls; host objects %+lld, Python blocks %+lld, resident %+lld KiB; every 10,000 (KiB):%s\n",
              what, static_cast<long long>(total), static_cast<long long>(after.live_objects - before.live_objects),
              static_cast<long long>(after.python_blocks - before.python_blocks),
              static_cast<long long>((after.resident - before.resident) / 1024), curve.c_str());
}

kest::EvaluationScope scope_of(const kest::HashMap &locals, const kest::Any &out = {}) {
  return kest::EvaluationScope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals),
                               out.empty() ? kest::Union<kest::I_MutableMap, kest::None>(kest::None())
                                           : kest::Union<kest::I_MutableMap, kest::None>(kest::I_MutableMap::unsafeFrom(out)));
}

bool is_integer(const kest::Any &value, std::int64_t expected) {
  return kest::Integer::isInstance(value) && kest::Integer::unsafeFrom(value).value() == expected;
}

bool is_error(const kest::Any &value, const std::string &message) {
  return kest::Error::isInstance(value) && message_of(value) == message;
}

/// A host value into Python and back must give an equal value of the same class.
bool host_round_trip(const kest::Any &value) {
  py::gil lock;
  auto object = py::object::steal(toPython(value));
  if (!object) {
    PyErr_Clear();
    return false;
  }
  auto back = fromPython(object.get());
  if (PyErr_Occurred()) {
    PyErr_Clear();
    return false;
  }
  return back == value && kest::raw_class_of(back) == kest::raw_class_of(value);
}

/// A Python object into the host and back must give the very object, or an equal one.
bool python_round_trip(PyObject *object) {
  py::gil lock;
  auto host = fromPython(object);
  if (PyErr_Occurred()) {
    PyErr_Clear();
    return false;
  }
  auto back = py::object::steal(toPython(host));
  if (!back) {
    PyErr_Clear();
    return false;
  }
  if (back.get() == object)
    return true;
  const int equal = PyObject_RichCompareBool(back.get(), object, Py_EQ);
  PyErr_Clear();
  return equal == 1;
}

} // namespace

TEST(MemoryFlat, SuccessfulEvaluations) {
  expect_flat("statements", [](std::int64_t i) {
    auto locals = string_map({{"a", kest::Integer(i)}});
    return is_integer(unwrapped(language().evaluate(S("x = a + 1\nreturn x"), scope_of(locals))), i + 1);
  });
  expect_flat("expressions", [](std::int64_t i) {
    auto locals = string_map({{"a", kest::Integer(i)}});
    return is_integer(unwrapped(language().evaluateExpression(S("a * 2"), scope_of(locals))), 2 * i);
  });
}

TEST(MemoryFlat, EvaluationsThatRaiseInPython) {
  expect_flat("Python errors", [](std::int64_t) {
    return is_error(evaluate("x = 1\nraise ValueError('no')"), "no");
  });
  expect_flat("syntax errors", [](std::int64_t) { return kest::EvaluationError::isInstance(evaluate("x = (")); });
}

TEST(MemoryFlat, EvaluationsWhoseHostCallbackFails) {
  auto fail = kest::make_function([]() -> kest::Any { return kest::Error(S("host says no")); });
  auto locals = string_map({{"fail", fail}});
  expect_flat("host errors", [&](std::int64_t) {
    return is_error(unwrapped(language().evaluate(S("fail()"), scope_of(locals))), "host says no");
  });
}

TEST(MemoryFlat, EvaluationsWithTenLocalsAndTwoOutLocals) {
  expect_flat("scoped", [](std::int64_t i) {
    kest::HashMap locals(kest::String::getType(), kest::Type());
    for (int k = 0; k < 10; ++k)
      (void)locals.setChecked(S("l" + std::to_string(k)), kest::Integer(i + k));
    auto out = string_map({{"o1", kest::None()}, {"o2", kest::None()}});
    auto result = unwrapped(language().evaluate(S("o1 = l0 + l9\no2 = str(l5)\nreturn o1"), scope_of(locals, out)));
    auto o2 = unwrapped(kest::I_Map::unsafeFrom(out).get(S("o2")));
    return is_integer(result, 2 * i + 9) && kest::String::isInstance(o2) &&
           kest::String::unsafeFrom(o2).toUtf8() == std::to_string(i + 5);
  });
}

TEST(MemoryFlat, SandboxedEvaluations) {
  expect_flat("sandboxed", [](std::int64_t i) {
    auto locals = string_map({{"a", kest::Integer(i)}});
    return is_integer(unwrapped(python_language().evaluateInSandbox(S("return len('abc') + a"), scope_of(locals))),
                      i + 3);
  });
  expect_flat("sandboxed and blocked", [](std::int64_t) {
    return is_error(unwrapped(python_language().evaluateInSandbox(S("import os\nos.remove('/nonexistent/sarvode')"))),
                    "operation blocked in sandbox");
  });
}

TEST(MemoryFlat, HostValuesIntoPythonAndBack) {
  auto host_object = kest::HashMap(kest::String::getType(), kest::Type());
  const std::vector<std::pair<const char *, kest::Any>> samples = {
      {"None", kest::None()},
      {"Boolean", kest::Boolean(true)},
      {"small Integer", kest::Integer(7)},
      {"large Integer", kest::Integer(std::int64_t{1} << 62)},
      {"Float", kest::Float(-0.5)},
      {"String", S("text \xc3\xa9 \xf0\x9f\x98\x80")},
      {"ByteArray", kest::ByteArray("bytes\0here", 10)},
      {"Decimal", unwrapped(kest::Decimal::fromString("-12345.678901234567890"))},
      {"Date", kest::Date(2024, 2, 29)},
      {"Time", kest::Time(23, 59, 58, 999999)},
      {"DateTime", unwrapped(language().evaluateExpression(S("__import__('datetime').datetime(2001, 2, 3, 4, 5, 6, 7)")))},
      {"host object", host_object},
  };
  for (const auto &[name, value] : samples) {
    ASSERT_TRUE(host_round_trip(value)) << name << " does not come back equal: " << kest::display(value).toUtf8();
    expect_flat(name, [&value = value](std::int64_t) { return host_round_trip(value); });
  }
}

TEST(MemoryFlat, PythonObjectsIntoTheHostAndBack) {
  ensurePythonReady();
  const char *const samples[] = {
      "2**62",        "0.25",       "'text \\u00e9 \\U0001F600'", "b'bytes'", "__import__('decimal').Decimal('1E+999')",
      "__import__('datetime').datetime(2001, 2, 3, 4, 5, 6, 7, fold=1)", "lambda x: x", "{'a': 1}", "[1, 2]",
      "{1, 2}",       "(i for i in range(3))", "__import__('kest')",
  };
  for (const char *expression : samples) {
    py::object object;
    {
      py::gil lock;
      auto globals = py::object::steal(PyDict_New());
      object = py::object::steal(runWithBuiltin("eval", expression, globals.get(), globals.get()));
      if (!object)
        PyErr_Clear();
    }
    ASSERT_TRUE(object) << expression;
    ASSERT_TRUE(python_round_trip(object.get())) << expression << " does not come back";
    expect_flat(expression, [&object](std::int64_t) { return python_round_trip(object.get()); });
    py::gil lock;
    object = py::object();
  }
}

TEST(MemoryFlat, PythonValuesTheHostRefuses) {
  ensurePythonReady();
  py::object big;
  {
    py::gil lock;
    big = py::object::steal(PyLong_FromString("1000000000000000000000000000000", nullptr, 10));
  }
  ASSERT_TRUE(big);
  expect_flat("an integer beyond 64 bits", [&big](std::int64_t) {
    py::gil lock;
    auto host = fromPython(big.get());
    const bool refused = kest::Error::isInstance(host) && !PyErr_Occurred();
    PyErr_Clear();
    return refused;
  });
  py::gil lock;
  big = py::object();
}
