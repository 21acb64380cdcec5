// The host log: records, the logger and its sinks, capturing, level names, and
// dynamic access to the logger's "log" method and the record constructor.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace kest;

namespace {

String S(const std::string &text) { return String::fromUtf8(text); }

Any unwrapped(const Any &result) { return internal::result_unwrap_lazy(result); }

std::string error_text(const Any &result) {
  auto v = unwrapped(result);
  return Error::isInstance(v) ? Error::unsafeFrom(v).message().toUtf8() : std::string("<not an error>");
}

/// A sink that keeps the messages it receives.
struct collecting_sink {
  std::shared_ptr<std::mutex> mutex = std::make_shared<std::mutex>();
  std::shared_ptr<std::vector<std::string>> messages = std::make_shared<std::vector<std::string>>();
  std::uint64_t id = 0;

  collecting_sink() {
    id = add_log_sink([m = mutex, out = messages](const LogRecord &r) {
      std::lock_guard guard(*m);
      out->push_back(r.message().toUtf8());
    });
  }
  ~collecting_sink() { remove_log_sink(id); }
  collecting_sink(const collecting_sink &) = delete;
  collecting_sink &operator=(const collecting_sink &) = delete;

  std::vector<std::string> seen() const {
    std::lock_guard guard(*mutex);
    return *messages;
  }
};

} // namespace

TEST(LogRecords, KeepLevelAndMessage) {
  for (std::int64_t level : {10, 20, 30, 40, 50, 25, 0, -5, 1000}) {
    LogRecord r(level, S("message " + std::to_string(level)));
    EXPECT_EQ(r.level(), level);
    EXPECT_EQ(r.message().toUtf8(), "message " + std::to_string(level));
    EXPECT_TRUE(LogRecord::isInstance(r));
  }
  EXPECT_FALSE(LogRecord::isInstance(S("not a record")));
}

TEST(LogRecords, LevelAndMessageAreProperties) {
  LogRecord r(30, S("careful"));
  auto level = unwrapped(r.propertyValue(meta_property_untyped("$$level")));
  ASSERT_TRUE(Integer::isInstance(level));
  EXPECT_EQ(Integer::unsafeFrom(level).value(), 30);
  auto message = unwrapped(r.propertyValue(meta_property_untyped("message")));
  ASSERT_TRUE(String::isInstance(message));
  EXPECT_EQ(String::unsafeFrom(message).toUtf8(), "careful");
  EXPECT_EQ(qualname(raw_class_of(r)).toUtf8(), "kest.LogRecord");
}

TEST(LogLevels, HavePythonNames) {
  EXPECT_EQ(log_level_name(10), "DEBUG");
  EXPECT_EQ(log_level_name(20), "INFO");
  EXPECT_EQ(log_level_name(30), "WARNING");
  EXPECT_EQ(log_level_name(40), "ERROR");
  EXPECT_EQ(log_level_name(50), "CRITICAL");
  EXPECT_EQ(log_level_name(25), "Level 25");
  EXPECT_EQ(log_level_name(0), "Level 0");
  EXPECT_EQ(log_level_name(-1), "Level -1");
}

TEST(LogLevels, StandardErrorLineShowsTheLevelNameBeforeTheMessage) {
  EXPECT_EQ(log_line(LogRecord(30, S("a 1"))), "WARNING: a 1");
  EXPECT_EQ(log_line(LogRecord(20, S("x"))), "INFO: x");
  EXPECT_EQ(log_line(LogRecord(25, S("between"))), "Level 25: between");
  EXPECT_EQ(log_line(LogRecord(40, S("two\nlines"))), "ERROR: two\nlines");
}

TEST(LogSinks, LoggedRecordReachesAnAddedSinkUntilItIsRemoved) {
  std::vector<std::string> seen;
  std::vector<std::int64_t> levels;
  auto id = add_log_sink([&](const LogRecord &r) {
    seen.push_back(r.message().toUtf8());
    levels.push_back(r.level());
  });
  get_logger().log(LogRecord(20, S("tlog first")));
  get_logger().log(LogRecord(35, S("tlog second")));
  remove_log_sink(id);
  get_logger().log(LogRecord(20, S("tlog after removal")));
  EXPECT_EQ(seen, (std::vector<std::string>{"tlog first", "tlog second"}));
  EXPECT_EQ(levels, (std::vector<std::int64_t>{20, 35}));
  remove_log_sink(id); // removing twice is harmless
}

TEST(LogSinks, EverySinkReceivesEachRecord) {
  collecting_sink a;
  collecting_sink b;
  EXPECT_NE(a.id, b.id);
  get_logger().log(LogRecord(10, S("tlog to both")));
  EXPECT_EQ(a.seen(), (std::vector<std::string>{"tlog to both"}));
  EXPECT_EQ(b.seen(), (std::vector<std::string>{"tlog to both"}));
}

TEST(LogSinks, SinkMayLogAgain) {
  std::vector<std::string> seen;
  auto id = add_log_sink([&](const LogRecord &r) {
    seen.push_back(r.message().toUtf8());
    if (r.message().toUtf8() == "tlog outer")
      get_logger().log(LogRecord(20, S("tlog inner")));
  });
  get_logger().log(LogRecord(20, S("tlog outer")));
  remove_log_sink(id);
  EXPECT_EQ(seen, (std::vector<std::string>{"tlog outer", "tlog inner"}));
}

TEST(LogCapture, CollectsRecordsAndSilencesOtherSinks) {
  collecting_sink other;
  {
    log_capture capture;
    get_logger().log(LogRecord(40, S("tlog captured")));
    auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level(), 40);
    EXPECT_EQ(records[0].message().toUtf8(), "tlog captured");
    EXPECT_TRUE(capture.contains(S("tlog captured")));
    EXPECT_FALSE(capture.contains(S("tlog")));          // whole messages only
    EXPECT_FALSE(capture.contains(S("tlog captured!")));
    EXPECT_TRUE(other.seen().empty());
  }
  get_logger().log(LogRecord(20, S("tlog after capture")));
  EXPECT_EQ(other.seen(), (std::vector<std::string>{"tlog after capture"}));
}

TEST(LogCapture, NestedCapturesBothCollect) {
  collecting_sink other;
  log_capture outer;
  {
    log_capture inner;
    get_logger().log(LogRecord(20, S("tlog nested")));
    EXPECT_TRUE(inner.contains(S("tlog nested")));
  }
  get_logger().log(LogRecord(20, S("tlog outer only")));
  EXPECT_TRUE(outer.contains(S("tlog nested")));
  EXPECT_TRUE(outer.contains(S("tlog outer only")));
  EXPECT_EQ(outer.records().size(), 2u);
  EXPECT_TRUE(other.seen().empty());
}

TEST(LogCapture, CollectsFromSeveralThreads) {
  log_capture capture;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 250; ++i)
        get_logger().log(LogRecord(20, String::fromUtf8("tlog thread " + std::to_string(t))));
    });
  for (auto &t : threads)
    t.join();
  EXPECT_EQ(capture.records().size(), 1000u);
  for (int t = 0; t < 4; ++t)
    EXPECT_TRUE(capture.contains(S("tlog thread " + std::to_string(t))));
}

TEST(LogDynamic, LoggerLogMethodIsReachableByName) {
  auto logger = get_logger();
  EXPECT_TRUE(logger.isSame(get_logger()));
  EXPECT_TRUE(Logger::isInstance(logger));
  auto method = method_of(logger, meta_method_untyped("log"));
  ASSERT_TRUE(method.is<I_Callable_Generic>());
  auto log = method.as<I_Callable_Generic>();
  EXPECT_EQ(log.parameterCount(), 2);
  EXPECT_EQ(log.signature().parameters()[1].name().toUtf8(), "record");

  log_capture capture;
  auto r = log.callWith({logger, LogRecord(30, S("tlog dynamic"))});
  ASSERT_FALSE(r.isError()) << error_text(r);
  EXPECT_TRUE(None::isInstance(unwrapped(r)));
  auto bound = logger.boundMethod(meta_method_untyped("log"));
  ASSERT_TRUE(I_Callable_Generic::isInstance(bound));
  ASSERT_FALSE(I_Callable_Generic::unsafeFrom(bound)(LogRecord(50, S("tlog bound"))).isError());
  auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message().toUtf8(), "tlog dynamic");
  EXPECT_EQ(records[0].level(), 30);
  EXPECT_EQ(records[1].message().toUtf8(), "tlog bound");

  auto wrong = log.callWith({logger, S("not a record")});
  ASSERT_TRUE(wrong.isError());
  EXPECT_EQ(error_text(wrong), "Argument 2 (record) must be kest.LogRecord, not kest.String.");
  EXPECT_EQ(capture.records().size(), 2u);
}

TEST(LogDynamic, CallingTheRecordClassConstructsARecord) {
  auto cls = LogRecord::getClass();
  ASSERT_TRUE(I_Callable_Generic::isInstance(cls));
  auto init = method_of(cls, meta_method_untyped("$__init__"));
  ASSERT_TRUE(init.is<I_Callable_Generic>());
  auto r = I_Callable_Generic::unsafeFrom(cls)(Integer(30), S("made by calling the class"));
  ASSERT_FALSE(r.isError()) << error_text(r);
  ASSERT_TRUE(LogRecord::isInstance(r));
  auto record = LogRecord::unsafeFrom(unwrapped(r));
  EXPECT_EQ(record.level(), 30);
  EXPECT_EQ(record.message().toUtf8(), "made by calling the class");

  auto bad = I_Callable_Generic::unsafeFrom(cls)(S("thirty"), S("x"));
  ASSERT_TRUE(bad.isError());
  EXPECT_EQ(error_text(bad), "Argument 1 (level) must be kest.Integer, not kest.String.");
  auto sig = I_Callable_Generic::unsafeFrom(cls).signature();
  EXPECT_EQ(sig.toString().toUtf8(), "(level: Integer, message: String) -> LogRecord");
}
