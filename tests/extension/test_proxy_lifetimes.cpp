// Lifetimes of the wrappers of Python objects, counted: every wrapper holds
// one reference to its Python object while it lives and gives it back when it
// ends, on whichever host thread drops it; the host's live-object count comes
// back to where it started.

#include "python_objects_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
#if defined(__SANITIZE_ADDRESS__)
constexpr bool sanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif
#else
constexpr bool sanitized = false;
#endif

/// Wrappers of each kind made across all threads (fewer under the sanitizers, which are slow).
constexpr int wrappers_per_kind = sanitized ? 10'000 : 100'000;
constexpr int threads = 4;
/// Each thread keeps this many wrappers of a kind alive at once before it drops them.
constexpr int batch = 50;

std::int64_t live_objects() {
  return kest::internal::object_value::live_count();
}

/// The Python objects, one per kind of wrapper, and how to make a wrapper of each.
struct kinds {
  enum { object, function, mapping, sequence, set, iterable, iterator, count };
  std::array<py::object, count> objects;
  std::array<kest::Class_Generic, count> classes;
  kest::Any generator; // the iterable proxy whose iterators are counted

  explicit kinds(python_scope& py) {
    py.run("class Thing:\n    pass\n"
           "def f(x):\n    return x\n"
           "def forever():\n    while True:\n        yield 1\n"
           "kept = [Thing(), f, {'a': 1}, [1, 2], {1, 2}, frozenset({3}), forever()]\n");
    for (int k = 0; k < count; ++k)
      objects[static_cast<std::size_t>(k)] = py.object("kept[" + std::to_string(k) + "]");
    classes = {cpythonObjectClass(),        cpythonFunctionClass(), cpythonProxyMappingClass(),
               cpythonProxySequenceClass(), cpythonProxySetClass(), cpythonProxyIterableClass(),
               cpythonProxyIteratorClass()};
    generator = py.host("kept[6]");
  }

  /// A new wrapper of kind `k`, made as the host makes them: by conversion,
  /// or for an iterator by iterating a proxy. Takes the lock itself.
  kest::Any make(int k) const {
    if (k == iterator)
      return iterateProxy(generator);
    py::gil lock;
    return fromPython(objects[static_cast<std::size_t>(k)].get());
  }

  std::array<Py_ssize_t, count> refcounts() const {
    std::array<Py_ssize_t, count> out{};
    for (int k = 0; k < count; ++k)
      out[static_cast<std::size_t>(k)] =
          python_refcount(objects[static_cast<std::size_t>(k)].get());
    return out;
  }
};
} // namespace

TEST(WrapperLifetimes, EachLiveWrapperHoldsOneReferenceAndGivesItBack) {
  python_scope py;
  kinds all(py);
  for (int k = 0; k < kinds::count; ++k)
    (void)all.make(k); // classes and caches are made on first use
  const auto before = all.refcounts();
  const auto live_before = live_objects();
  constexpr int alive = 1000;
  {
    std::vector<kest::Any> wrappers;
    for (int k = 0; k < kinds::count; ++k)
      for (int i = 0; i < alive; ++i)
        wrappers.push_back(all.make(k));
    for (int k = 0; k < kinds::count; ++k) {
      SCOPED_TRACE(k);
      const auto& w = wrappers[static_cast<std::size_t>(k * alive)];
      EXPECT_TRUE(kest::raw_class_of(w).isSame(all.classes[static_cast<std::size_t>(k)]))
          << class_name_of(w);
    }
    const auto during = all.refcounts();
    for (int k = 0; k < kinds::count; ++k) {
      SCOPED_TRACE(k);
      // The iterators all hold the one generator, the last of the objects.
      EXPECT_EQ(during[static_cast<std::size_t>(k)], before[static_cast<std::size_t>(k)] + alive);
    }
    EXPECT_GE(live_objects(), live_before + kinds::count * alive);
  }
  EXPECT_EQ(all.refcounts(), before);
  EXPECT_EQ(live_objects(), live_before);
}

TEST(WrapperLifetimes, WrappersMadeAndDroppedOnFourHostThreadsGiveEveryCountBack) {
  python_scope py;
  kinds all(py);
  for (int k = 0; k < kinds::count; ++k)
    (void)all.make(k); // classes and caches are made on first use
  const auto before = all.refcounts();
  const auto live_before = live_objects();

  std::array<std::atomic<int>, kinds::count> made{};
  std::array<std::atomic<int>, kinds::count> wrong_class{};
  std::atomic<int> ready{0};
  auto work = [&] {
    ready.fetch_add(1);
    while (ready.load() < threads) // start together
      std::this_thread::yield();
    std::vector<kest::Any> held;
    held.reserve(batch);
    for (int done = 0; done < wrappers_per_kind / threads; done += batch)
      for (int k = 0; k < kinds::count; ++k) {
        for (int i = 0; i < batch && done + i < wrappers_per_kind / threads; ++i) {
          held.push_back(all.make(k));
          if (!kest::raw_class_of(held.back()).isSame(all.classes[static_cast<std::size_t>(k)]))
            wrong_class[static_cast<std::size_t>(k)].fetch_add(1);
        }
        made[static_cast<std::size_t>(k)].fetch_add(static_cast<int>(held.size()));
        held.clear(); // dropped here, without the interpreter lock held
      }
  };
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back(work);
  for (auto& t : pool)
    t.join();

  for (int k = 0; k < kinds::count; ++k) {
    SCOPED_TRACE(k);
    EXPECT_EQ(made[static_cast<std::size_t>(k)].load(), wrappers_per_kind);
    EXPECT_EQ(wrong_class[static_cast<std::size_t>(k)].load(), 0);
  }
  EXPECT_EQ(all.refcounts(), before);
  EXPECT_EQ(live_objects(), live_before);
  expect_no_python_error("the threads ended");
}

TEST(WrapperLifetimes, AWrapperMadeOnOneThreadAndDroppedOnAnotherGivesItsReferenceBack) {
  python_scope py;
  kinds all(py);
  for (int k = 0; k < kinds::count; ++k)
    (void)all.make(k);
  const auto before = all.refcounts();
  const auto live_before = live_objects();
  std::vector<kest::Any> wrappers;
  for (int k = 0; k < kinds::count; ++k)
    wrappers.push_back(all.make(k));
  std::thread other([moved = std::move(wrappers)]() mutable { moved.clear(); });
  other.join();
  EXPECT_EQ(all.refcounts(), before);
  EXPECT_EQ(live_objects(), live_before);
}

TEST(WrapperLifetimes, ResultsOfProxyMembersGiveTheirReferencesBack) {
  python_scope py;
  py.run("inner = [1, 2]\nd = {'inner': inner}\nitems = [inner, inner]\n");
  auto inner = py.object("inner");
  auto map = kest::I_Map::unsafeFrom(py.host("d"));
  auto sequence = kest::I_Sequence::unsafeFrom(py.host("items"));
  auto use = [&](int i) {
    auto got = value_of(map.get(kest::String(u"inner")));
    auto at = value_of(sequence.at(i % 2));
    auto values = value_of(map.values());
    for (const auto& value : kest::I_Iterable::unsafeFrom(sequence))
      EXPECT_EQ(held_by(value), inner.get());
    EXPECT_EQ(held_by(got), inner.get());
    EXPECT_EQ(held_by(at), inner.get());
  };
  use(0); // classes and caches are made on first use
  const auto before = python_refcount(inner.get());
  const auto live_before = live_objects();
  for (int i = 0; i < 1000 && !HasFailure(); ++i)
    use(i);
  EXPECT_EQ(python_refcount(inner.get()), before);
  EXPECT_EQ(live_objects(), live_before);
}
