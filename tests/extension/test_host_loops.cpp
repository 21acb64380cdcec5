// Host loops over Python containers: what the loop sees when its body changes
// the container (as Python's own `for` sees it), and the element a loop
// refills in place.

#include "python_objects_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
/// The integers a host loop over `iterable` sees, running `body` after each
/// element (with its position); fails the test when the loop ends in an error.
std::vector<std::int64_t> loop(const kest::Any &iterable, const std::function<void(std::size_t)> &body) {
  std::vector<std::int64_t> seen;
  kest::internal::iterator_iterable it(iterable), end;
  for (; it != end; ++it) {
    seen.push_back(host_integer(*it));
    body(seen.size() - 1);
  }
  EXPECT_TRUE(it.error().empty()) << message_of(it.error());
  return seen;
}

/// What a host loop over the list `initial` sees when Python code `change`
/// runs after its second element; checked against Python's own `for` making
/// the same change at the same element.
std::vector<std::int64_t> changed_at_second(const std::string &initial, const std::string &change) {
  python_scope py;
  py.run("numbers = " + initial);
  auto seen = loop(py.host("numbers"), [&](std::size_t i) {
    if (i == 1)
      py.run(change);
  });
  py.run("numbers = " + initial + "\n"
         "change = '''" + change + "'''\n"
         "python_saw = []\n"
         "for x in numbers:\n"
         "    python_saw.append(x)\n"
         "    if len(python_saw) == 2:\n"
         "        exec(change)\n");
  EXPECT_EQ(seen, host_integers(py.host("python_saw"))) << "changed by: " << change;
  return seen;
}
} // namespace

TEST(HostLoop, AListAppendedToInsideTheLoopIsWalkedToItsNewEnd) {
  EXPECT_EQ(changed_at_second("[1, 2, 3]", "numbers.append(4)"), (std::vector<std::int64_t>{1, 2, 3, 4}));
}

TEST(HostLoop, AListShrunkInsideTheLoopEndsTheLoopEarly) {
  EXPECT_EQ(changed_at_second("[1, 2, 3, 4, 5]", "del numbers[2:]"), (std::vector<std::int64_t>{1, 2}));
}

TEST(HostLoop, AnElementReplacedAheadOfTheLoopIsSeenWithItsNewValue) {
  EXPECT_EQ(changed_at_second("[1, 2, 3, 4]", "numbers[2] = 30\nnumbers[0] = 10"),
            (std::vector<std::int64_t>{1, 2, 30, 4}));
}

TEST(HostLoop, AListChangedThroughItsHostWrapperIsSeenByTheLoop) {
  python_scope py;
  py.run("numbers = [1, 2, 3]");
  auto list = py.host("numbers");
  ASSERT_TRUE(kest::I_MutableSequence::isInstance(list));
  auto seen = loop(list, [&](std::size_t i) {
    if (i == 0)
      (void)kest::I_MutableSequence::unsafeFrom(list).append(kest::Integer(7));
  });
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 2, 3, 7}));
}

TEST(HostLoop, AnElementKeptFromAnEarlierStepKeepsItsValue) {
  // The loop refills the Integer of the element it moves past only when nothing
  // else holds it: copies taken by the body must not change.
  python_scope py;
  py.run("numbers = [5, 6, 7]");
  std::vector<kest::Any> kept;
  kest::internal::iterator_iterable it(py.host("numbers")), end;
  for (; it != end; ++it)
    kept.push_back(*it);
  ASSERT_EQ(kept.size(), 3u);
  EXPECT_EQ(host_integer(kept[0]), 5);
  EXPECT_EQ(host_integer(kept[1]), 6);
  EXPECT_EQ(host_integer(kept[2]), 7);
  EXPECT_FALSE(kept[0].isSame(kept[1]));
}

TEST(HostLoop, AWeakReferenceToTheElementKeepsItFromBeingRefilled) {
  python_scope py;
  py.run("numbers = [5, 6]");
  kest::internal::iterator_iterable it(py.host("numbers")), end;
  ASSERT_NE(it, end);
  kest::WeakReference weak(*it);
  ++it;
  ASSERT_NE(it, end);
  EXPECT_EQ(host_integer(*it), 6);
  // The first element is gone (nothing strong held it), not turned into 6.
  auto first = weak.lock();
  EXPECT_TRUE(first.empty() || host_integer(first) == 5);
}

TEST(HostLoop, AnIntBeyondSixtyFourBitsEndsTheLoopWithTheConversionError) {
  python_scope py;
  py.run("numbers = [1, 2**70, 3]");
  std::vector<std::int64_t> seen;
  kest::internal::iterator_iterable it(py.host("numbers")), end;
  for (; it != end; ++it)
    seen.push_back(host_integer(*it));
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1}));
  ASSERT_TRUE(kest::Error::isInstance(it.error()));
  EXPECT_EQ(kest::Error::unsafeFrom(it.error()).typeName().toUtf8(), "OverflowError");
  EXPECT_EQ(message_of(it.error()), "int too big to convert");
  expect_no_python_error("the loop");
}

TEST(HostLoop, MinusOneAndTheSixtyFourBitBoundsAreReadAsThemselves) {
  // -1 is also what a failed read of an int returns: it must not be taken for one.
  python_scope py;
  py.run("numbers = [-1, 0, -2**63, 2**63 - 1, -1]");
  EXPECT_EQ(loop(py.host("numbers"), [](std::size_t) {}),
            (std::vector<std::int64_t>{-1, 0, std::numeric_limits<std::int64_t>::min(),
                                       std::numeric_limits<std::int64_t>::max(), -1}));
  expect_no_python_error("the loop");
}

TEST(HostLoop, ADictChangedInSizeDuringTheLoopEndsItWithPythonsRuntimeError) {
  python_scope py;
  py.run("table = {'a': 1, 'b': 2, 'c': 3}");
  std::size_t steps = 0;
  kest::internal::iterator_iterable it(py.host("table")), end;
  for (; it != end; ++it)
    if (++steps == 1)
      py.run("table['d'] = 4");
  EXPECT_EQ(steps, 1u);
  ASSERT_TRUE(kest::Error::isInstance(it.error()));
  const auto error = kest::Error::unsafeFrom(it.error());
  EXPECT_EQ(error.typeName().toUtf8(), "RuntimeError");
  EXPECT_EQ(error.message().toUtf8(), "dictionary changed size during iteration");
  expect_no_python_error("the loop");
}

// Exact lists and tuples are walked by the loop itself (no iterator object);
// what they give must not differ from what their iterators give.

namespace {
/// The elements a range-based `for` over `iterable` sees before it throws,
/// and the host error it throws (empty when it ends without one).
std::pair<std::vector<std::int64_t>, kest::Any> range_for(const kest::Any &iterable,
                                                          const std::function<void(std::size_t)> &body) {
  std::vector<std::int64_t> seen;
  try {
    for (const kest::Any &element : kest::I_Iterable::unsafeFrom(iterable)) {
      seen.push_back(host_integer(element));
      body(seen.size() - 1);
    }
  } catch (const kest::exception &e) {
    // What a user prints names the error's type as well as its message.
    EXPECT_EQ(std::string(e.what()), kest::Error::unsafeFrom(e.error()).headline().toUtf8());
    return {seen, e.error()};
  }
  return {seen, {}};
}
} // namespace

TEST(HostLoop, ARangeForThatMeetsAnIntBeyondSixtyFourBitsThrowsTheConversionError) {
  python_scope py;
  py.run("numbers = [1, 2**70, 3]");
  const auto [seen, error] = range_for(py.host("numbers"), [](std::size_t) {});
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1}));
  ASSERT_TRUE(kest::Error::isInstance(error));
  EXPECT_EQ(kest::Error::unsafeFrom(error).typeName().toUtf8(), "OverflowError");
  EXPECT_EQ(message_of(error), "int too big to convert");
  EXPECT_EQ(kest::Error::unsafeFrom(error).headline().toUtf8(), "OverflowError: int too big to convert");
  expect_no_python_error("the loop");
}

TEST(HostLoop, ARangeForOverADictChangedInSizeThrowsPythonsRuntimeError) {
  python_scope py;
  py.run("table = {'a': 1, 'b': 2, 'c': 3}");
  const auto [seen, error] = range_for(py.host("list(table.values())"), [](std::size_t) {});
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_TRUE(error.empty()); // a walk that ends normally throws nothing
  py.run("values = iter(table.values())");
  const auto [before, raised] = range_for(py.host("values"), [&](std::size_t) { py.run("table['d'] = 4"); });
  EXPECT_EQ(before, (std::vector<std::int64_t>{1}));
  ASSERT_TRUE(kest::Error::isInstance(raised));
  EXPECT_EQ(kest::Error::unsafeFrom(raised).typeName().toUtf8(), "RuntimeError");
  EXPECT_EQ(message_of(raised), "dictionary changed size during iteration");
  expect_no_python_error("the loop");
}

TEST(HostLoop, ARangeForOverAGeneratorThatRaisesThrowsItsError) {
  python_scope py;
  py.run("def walk():\n    yield 1\n    raise ValueError('no walk today')\n");
  const auto [seen, error] = range_for(py.host("walk()"), [](std::size_t) {});
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1}));
  ASSERT_TRUE(kest::Error::isInstance(error));
  EXPECT_EQ(kest::Error::unsafeFrom(error).typeName().toUtf8(), "ValueError");
  EXPECT_EQ(message_of(error), "no walk today");
  expect_no_python_error("the loop");
}

TEST(HostLoop, ATupleIsWalkedInOrder) {
  python_scope py;
  py.run("numbers = (4, 5, 6)");
  EXPECT_EQ(loop(py.host("numbers"), [](std::size_t) {}), (std::vector<std::int64_t>{4, 5, 6}));
}

TEST(HostLoop, AnEmptyListGivesNoElementAndNoError) {
  python_scope py;
  py.run("numbers = []");
  EXPECT_TRUE(loop(py.host("numbers"), [](std::size_t) {}).empty());
}

TEST(HostLoop, AListSubclassIsWalkedThroughItsOwnIter) {
  python_scope py;
  py.run("class Backwards(list):\n"
         "    def __iter__(self):\n"
         "        return iter(list(reversed(self)))\n"
         "numbers = Backwards([1, 2, 3])");
  EXPECT_EQ(loop(py.host("numbers"), [](std::size_t) {}), (std::vector<std::int64_t>{3, 2, 1}));
}

TEST(HostLoop, AListThatPythonLetsGoOfDuringTheLoopIsWalkedToItsEnd) {
  // The loop holds the wrapper, which holds the list.
  python_scope py;
  py.run("numbers = [1, 2, 3]");
  auto seen = loop(py.host("numbers"), [&](std::size_t i) {
    if (i == 0)
      py.run("del numbers\nimport gc\ngc.collect()");
  });
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 2, 3}));
}

TEST(HostLoop, ALoopInsideAHeldLockWalksTheSameElements) {
  python_scope py;
  py.run("numbers = [1, 2, 3]");
  auto list = py.host("numbers");
  std::vector<std::int64_t> seen;
  {
    py::gil hold;
    seen = loop(list, [&](std::size_t i) {
      if (i == 0)
        py.run("numbers.append(4)"); // the scope nests in the one held
    });
  }
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 2, 3, 4}));
}

TEST(HostLoop, ATupleElementBeyondSixtyFourBitsEndsTheLoopWithTheConversionError) {
  python_scope py;
  py.run("numbers = (1, 2**70, 3)");
  kest::internal::iterator_iterable it(py.host("numbers")), end;
  ASSERT_NE(it, end);
  EXPECT_EQ(host_integer(*it), 1);
  ++it; // the step that meets 2**70 ends the loop
  EXPECT_EQ(it, end);
  ASSERT_TRUE(kest::Error::isInstance(it.error()));
  EXPECT_EQ(kest::Error::unsafeFrom(it.error()).typeName().toUtf8(), "OverflowError");
  expect_no_python_error("the loop");
}

TEST(HostLoop, ElementsOfAListFromTheSandboxAreMadeInIt) {
  // A function found by the loop in a list that sandboxed code handed over is
  // itself sandboxed: calling it later cannot write.
  auto language = kest::PythonLanguage::cast(python_language_of_host());
  ASSERT_TRUE(language.is<kest::PythonLanguage>());
  const auto list = kest::internal::result_unwrap_lazy(language.as<kest::PythonLanguage>().evaluateInSandbox(
      kest::String(u"def write():\n    open('/tmp/sarvode-host-loop-sandbox.txt', 'w')\nreturn [write]")));
  std::vector<kest::Any> functions;
  kest::internal::iterator_iterable it(list), end;
  for (; it != end; ++it)
    functions.push_back(*it);
  ASSERT_TRUE(it.error().empty()) << message_of(it.error());
  ASSERT_EQ(functions.size(), 1u);
  ASSERT_TRUE(kest::I_Callable_Generic::isInstance(functions[0]));
  const auto outcome =
      kest::internal::result_unwrap_lazy(kest::I_Callable_Generic::unsafeFrom(functions[0]).callWith({}));
  ASSERT_TRUE(kest::Error::isInstance(outcome));
  EXPECT_EQ(kest::Error::unsafeFrom(outcome).typeName().toUtf8(), "PermissionError");
  expect_no_python_error("the call");
}
