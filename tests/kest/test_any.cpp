// Handles: sharing, identity and reference counts across threads.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace kest;

TEST(Any, EmptyHandleIsNone) {
  Any a;
  EXPECT_TRUE(a.empty());
  EXPECT_EQ(a.kind(), internal::ObjectType::None);
  EXPECT_TRUE(is_none(a));
  EXPECT_TRUE(None::isInstance(a));
}

TEST(Any, CopiesShareOneObjectAndCountReferences) {
  Integer i(42);
  EXPECT_EQ(i.get()->ref_count(), 1u);
  {
    Any copy = i;
    EXPECT_TRUE(copy.isSame(i));
    EXPECT_EQ(i.get()->ref_count(), 2u);
    Any moved = std::move(copy);
    EXPECT_TRUE(copy.empty());
    EXPECT_EQ(i.get()->ref_count(), 2u);
  }
  EXPECT_EQ(i.get()->ref_count(), 1u);
}

TEST(Any, CopiesAcrossFourThreadsNeitherLeakNorDoubleFree) {
  const auto before = internal::object_value::live_count();
  {
    String shared = String::fromUtf8("shared between threads");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([shared] {
        std::vector<Any> copies;
        for (int i = 0; i < 10000; ++i) {
          copies.push_back(shared);
          if (copies.size() > 64)
            copies.clear();
        }
      });
    for (auto &t : threads)
      t.join();
    EXPECT_EQ(shared.get()->ref_count(), 1u);
  }
  EXPECT_EQ(internal::object_value::live_count(), before);
}
