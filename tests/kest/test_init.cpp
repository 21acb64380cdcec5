// Start-up handlers: ordering by level and registration, once-only runs,
// failures reported through the log, and handlers registered while running.
//
// The handler list is shared by the whole test program, so each test registers
// its own handlers and checks only what they did.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace kest;
using kest::internal::add_init_handler;
using kest::internal::run_init_handlers;

namespace {
using trace = std::shared_ptr<std::vector<std::string>>;

trace new_trace() { return std::make_shared<std::vector<std::string>>(); }

internal::init_handler record(const trace &t, std::string label) {
  return [t, label = std::move(label)] { t->push_back(label); };
}
} // namespace

TEST(InitHandlers, RunByAscendingLevelThenRegistrationOrder) {
  auto t = new_trace();
  add_init_handler(5000, record(t, "5000-first"));
  add_init_handler(4000, record(t, "4000-first"));
  add_init_handler(5000, record(t, "5000-second"));
  add_init_handler(4000, record(t, "4000-second"));
  add_init_handler(4500, record(t, "4500"));
  add_init_handler(-100, record(t, "negative"));
  EXPECT_TRUE(t->empty()); // registering runs nothing
  EXPECT_GE(run_init_handlers(), 6u);
  EXPECT_EQ(*t, (std::vector<std::string>{"negative", "4000-first", "4000-second", "4500", "5000-first",
                                          "5000-second"}));
}

TEST(InitHandlers, EachHandlerRunsOnce) {
  run_init_handlers(); // whatever other code registered has now run
  auto t = new_trace();
  add_init_handler(100, record(t, "once"));
  EXPECT_EQ(run_init_handlers(), 1u);
  EXPECT_EQ(*t, (std::vector<std::string>{"once"}));
  EXPECT_EQ(run_init_handlers(), 0u);
  EXPECT_EQ(*t, (std::vector<std::string>{"once"}));

  add_init_handler(50, record(t, "later"));
  EXPECT_EQ(run_init_handlers(), 1u); // only the new one, although its level is lower
  EXPECT_EQ(*t, (std::vector<std::string>{"once", "later"}));

  std::size_t done = 0;
  for (auto &entry : internal::init_handlers_unsafe())
    done += entry.done ? 1 : 0;
  EXPECT_EQ(done, internal::init_handlers_unsafe().size());
}

TEST(InitHandlers, ThrowingHandlerIsReportedAndTheOthersStillRun) {
  run_init_handlers();
  auto t = new_trace();
  add_init_handler(6999, record(t, "before"));
  add_init_handler(7000, [] { throw std::runtime_error("kaput"); });
  add_init_handler(7001, record(t, "after"));
  add_init_handler(7002, [] { throw 17; });
  add_init_handler(7003, record(t, "last"));
  log_capture capture;
  EXPECT_NO_THROW(EXPECT_EQ(run_init_handlers(), 5u));
  EXPECT_EQ(*t, (std::vector<std::string>{"before", "after", "last"}));
  EXPECT_TRUE(capture.contains(String::fromUtf8("Start-up handler at level 7000 failed: kaput")));
  EXPECT_TRUE(capture.contains(String::fromUtf8("Start-up handler at level 7002 failed.")));
  auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level(), 40);
  // A failed handler is not retried.
  EXPECT_EQ(run_init_handlers(), 0u);
}

TEST(InitHandlers, HandlerRegisteredByAHandlerRuns) {
  run_init_handlers();
  auto t = new_trace();
  add_init_handler(8000, [t] {
    t->push_back("8000");
    add_init_handler(9000, record(t, "9000-added"));
    add_init_handler(7500, record(t, "7500-added"));
  });
  add_init_handler(8500, record(t, "8500"));
  EXPECT_EQ(run_init_handlers(), 4u);
  // The lower level added while running runs next; the higher one in its turn.
  EXPECT_EQ(*t, (std::vector<std::string>{"8000", "7500-added", "8500", "9000-added"}));
  EXPECT_EQ(run_init_handlers(), 0u);
}
