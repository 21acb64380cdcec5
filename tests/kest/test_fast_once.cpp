// fast_once runs its function once, as std::call_once does: a call that throws
// lets a later one try again, and threads that arrive together see one run.

#include <kest/once.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

using kest::internal::fast_once;

TEST(FastOnce, RunsItsFunctionOnce) {
  fast_once once;
  int runs = 0;
  EXPECT_FALSE(once.done());
  for (int i = 0; i < 5; ++i)
    once.call([&] { ++runs; });
  EXPECT_EQ(runs, 1);
  EXPECT_TRUE(once.done());
}

TEST(FastOnce, AFunctionThatThrowsLetsALaterCallTryAgain) {
  fast_once once;
  int runs = 0;
  EXPECT_THROW(once.call([&] {
    ++runs;
    throw std::runtime_error("not yet");
  }),
               std::runtime_error);
  EXPECT_FALSE(once.done());
  once.call([&] { ++runs; });
  once.call([&] { ++runs; });
  EXPECT_EQ(runs, 2);
  EXPECT_TRUE(once.done());
}

TEST(FastOnce, EightThreadsArrivingTogetherSeeOneRunAndItsResult) {
  for (int round = 0; round < 20; ++round) {
    fast_once once;
    std::atomic<int> runs{0};
    int value = 0; // written by the one run, read by every thread after its call
    std::atomic<bool> go{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
      threads.emplace_back([&] {
        while (!go.load(std::memory_order_acquire))
          std::this_thread::yield();
        once.call([&] {
          runs.fetch_add(1);
          value = 42;
        });
        if (value != 42)
          wrong.fetch_add(1);
      });
    go.store(true, std::memory_order_release);
    for (auto &t : threads)
      t.join();
    EXPECT_EQ(runs.load(), 1);
    EXPECT_EQ(wrong.load(), 0);
  }
}
