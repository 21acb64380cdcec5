// Modules made on first use: a maker registered for a name prefix runs when a
// module of that prefix is first looked up, once it completes, and never for
// names that only begin with the same letters.

#include "kest_test_support.hpp"

#include <kest/deferred_modules.hpp>
#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

using namespace kest;
using namespace kest_test;

namespace {

bool listed(const char *name) {
  auto all = modules();
  return std::any_of(all.begin(), all.end(), [&](const Module &m) { return m.name() == S(name); });
}

} // namespace

TEST(DeferredModules, MadeOnFirstLookUpOfTheirPrefixOnly) {
  static std::atomic<int> calls{0};
  defer_modules(S("lazy_one"), [] {
    ++calls;
    (void)get_module(S("lazy_one.inner")); // a lookup of its own prefix from inside the maker
    return true;
  });
  EXPECT_FALSE(listed("lazy_one.inner"));
  EXPECT_TRUE(find_module(S("lazy_onex")).is<None>()); // same letters, another name
  EXPECT_TRUE(find_module(S("lazy")).is<None>());
  EXPECT_EQ(calls.load(), 0);

  EXPECT_TRUE(find_module(S("lazy_one.inner")).is<Module>());
  EXPECT_EQ(calls.load(), 1);
  EXPECT_TRUE(find_module(S("lazy_one.inner")).is<Module>());
  (void)get_module(S("lazy_one"));
  load_deferred_modules();
  EXPECT_EQ(calls.load(), 1); // completed: never again
}

TEST(DeferredModules, AMakerThatMadeNothingIsAskedAgain) {
  static std::atomic<int> calls{0};
  static std::atomic<bool> ready{false};
  defer_modules(S("lazy_two"), [] {
    ++calls;
    if (!ready)
      return false;
    (void)get_module(S("lazy_two.made"));
    return true;
  });
  EXPECT_TRUE(find_module(S("lazy_two.made")).is<None>());
  EXPECT_EQ(calls.load(), 1);
  ready = true;
  EXPECT_TRUE(find_module(S("lazy_two.made")).is<Module>());
  EXPECT_EQ(calls.load(), 2);
  (void)find_module(S("lazy_two.made"));
  EXPECT_EQ(calls.load(), 2);
}

TEST(DeferredModules, ACompleteListingMakesThemAll) {
  static std::atomic<int> calls{0};
  defer_modules(S("lazy_three"), [] {
    ++calls;
    (void)get_module(S("lazy_three.a"));
    return true;
  });
  EXPECT_FALSE(listed("lazy_three.a"));
  load_deferred_modules();
  EXPECT_TRUE(listed("lazy_three.a"));
  EXPECT_EQ(calls.load(), 1);
}

TEST(DeferredModules, ConcurrentFirstLookUpsAllSeeTheModule) {
  defer_modules(S("lazy_four"), [] {
    // The maker guards itself, as the contract asks: every caller returns once it is made.
    static std::once_flag once;
    std::call_once(once, [] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      (void)get_module(S("lazy_four.m"));
    });
    return true;
  });
  std::atomic<int> found{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] { found += find_module(S("lazy_four.m")).is<Module>() ? 1 : 0; });
  for (auto &t : threads)
    t.join();
  EXPECT_EQ(found.load(), 4);
}
