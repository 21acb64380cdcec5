// Host strings as Python dictionary keys: the same String object used again
// (each thread remembers the last few by address and text), strings that share a
// remembered slot, long keys, other values, and reads from a dict through
// its host wrapper with keys kept by the host.

#include "language_test_support.hpp"

#include "convert/python_names.hpp"
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

/// The text of `key` as Python gives it (its repr for anything but a str), or
/// the error's text when the key could not be made; the key is released.
std::string text_of_key(PyObject *key) {
  if (!key) {
    PyErr_Clear();
    return "<no key>";
  }
  auto owned = py::object::steal(key);
  auto text = PyUnicode_Check(key) ? py::object::borrow(key) : py::object::steal(PyObject_Repr(key));
  Py_ssize_t size = 0;
  const char *utf8 = text ? PyUnicode_AsUTF8AndSize(text.get(), &size) : nullptr;
  if (!utf8) {
    PyErr_Clear();
    return "<unreadable>";
  }
  return std::string(utf8, static_cast<std::size_t>(size));
}

std::string key_of(const kest::Any &key) {
  ensurePythonReady();
  py::gil lock;
  return text_of_key(pythonKey(key));
}
} // namespace

TEST(PythonNames, TheSameStringGivesTheSameInternedName) {
  ensurePythonReady();
  const kest::String key(u"alpha");
  py::gil lock;
  auto first = py::object::steal(pythonKey(key));
  auto again = py::object::steal(pythonKey(key));
  auto named = py::object::steal(pythonName("alpha"));
  ASSERT_TRUE(first && again && named);
  EXPECT_EQ(first.get(), again.get());
  EXPECT_EQ(first.get(), named.get());
  EXPECT_EQ(PyUnicode_CompareWithASCIIString(first.get(), "alpha"), 0);
  EXPECT_FALSE(PyErr_Occurred());
}

TEST(PythonNames, ManyStringsSharingRememberedSlotsEachGetTheirOwnName) {
  std::vector<kest::String> keys;
  for (int i = 0; i < 200; ++i)
    keys.push_back(kest::String::fromUtf8("key" + std::to_string(i)));
  for (int round = 0; round < 3; ++round)
    for (std::size_t i = 0; i < keys.size(); ++i) {
      const auto n = (i * 37 + static_cast<std::size_t>(round)) % keys.size();
      EXPECT_EQ(key_of(keys[n]), "key" + std::to_string(n));
    }
}

TEST(PythonNames, AStringReleasedAndAnotherMadeInItsPlaceGetsItsOwnName) {
  for (int i = 0; i < 100; ++i) {
    // The freed string's memory is likely reused for the next one.
    EXPECT_EQ(key_of(kest::String::fromUtf8("first" + std::to_string(i))), "first" + std::to_string(i));
    EXPECT_EQ(key_of(kest::String::fromUtf8("second" + std::to_string(i))), "second" + std::to_string(i));
  }
}

TEST(PythonNames, LongKeysAndOtherValuesAreConvertedEachTime) {
  const auto long_text = std::string(100, 'x');
  const auto long_key = kest::String::fromUtf8(long_text);
  EXPECT_EQ(key_of(long_key), long_text);
  EXPECT_EQ(key_of(long_key), long_text);
  EXPECT_EQ(key_of(kest::Integer(12)), "12");
  EXPECT_EQ(key_of(kest::String(u"caf\u00e9")), "caf\xc3\xa9");
  EXPECT_EQ(key_of(kest::String()), "");
}

TEST(PythonNames, ThreadsUsingTheSameStringsGetTheRightNames) {
  const std::vector<kest::String> keys{kest::String(u"a"), kest::String(u"bb"), kest::String(u"ccc")};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&keys, &wrong, t] {
      for (int i = 0; i < 300; ++i) {
        const auto n = static_cast<std::size_t>(i + t) % keys.size();
        if (key_of(keys[n]) != keys[n].toUtf8())
          ++wrong;
      }
    });
  for (auto &thread : threads)
    thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST(PythonNames, ADictReadThroughItsWrapperWithKeptKeys) {
  const auto dict = evaluate_expression("{'one': 1, 'two': 2, 'three': 3}");
  ASSERT_TRUE(kest::I_Map::isInstance(dict)) << kest::display(dict).toUtf8();
  const auto map = kest::I_Map::unsafeFrom(dict);
  const kest::String one(u"one"), two(u"two"), four(u"four");
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(integer_of(unwrapped(map.get(one))), 1);
    EXPECT_EQ(integer_of(unwrapped(map.get(two))), 2);
    const auto missing = unwrapped(map.get(four));
    EXPECT_TRUE(kest::Error::isInstance(missing));
    EXPECT_NE(message_of(missing).find("four"), std::string::npos) << message_of(missing);
  }
}
