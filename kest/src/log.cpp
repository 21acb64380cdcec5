// The host log: records, the logger object and its sinks.

#include "builtin.hpp"

#include <kest/builders.hpp>
#include <kest/function.hpp>
#include <kest/interfaces.hpp>
#include <kest/log.hpp>

#include <fmt/format.h>

#include <cstdio>
#include <mutex>

namespace kest {
namespace internal {

class object_value_log_record final : public native_instance<&LogRecord::getClass> {
public:
  object_value_log_record(std::int64_t l, String m) : level(l), message(std::move(m)) {}
  const std::int64_t level;
  const String message;
};

class object_value_logger final : public native_instance<&Logger::getClass> {};

namespace {
struct sink_table {
  std::mutex mutex;
  std::vector<std::pair<std::uint64_t, log_sink>> sinks;
  std::uint64_t next_id = 1;
  int capturing = 0;              // while positive, only capture sinks receive records
  std::vector<std::uint64_t> captures;
};

sink_table &sinks() {
  static auto *t = [] {
    auto *table = new sink_table; // lives for the process: records may arrive during exit
    table->sinks.emplace_back(0, [](const LogRecord &r) {
      // One write per record, so that records logged from several threads do
      // not mix within a line.
      const auto line = log_line(r) + "\n";
      std::fwrite(line.data(), 1, line.size(), stderr);
    });
    return table;
  }();
  return *t;
}

Class_Generic record_class() {
  auto cls = make_builtin_class("LogRecord", class_flags::final, {&I_Immutable::getClass});
  method_builder_base init{String(u"$__init__")};
  init.assign_func(make_function([](std::int64_t level, String message) { return LogRecord(level, message); }));
  init.signature(String(u"level, message"));
  init.assign_doc(String(u"Makes a log record from a level number and a message."));
  cls->add_method(init.name(), init.callable());
  for (auto [name, getter] : {std::pair{u"$$level", make_method([](LogRecord self) { return self.level(); })},
                              std::pair{u"$$message", make_method([](LogRecord self) { return self.message(); })}}) {
    property_builder_base p{String(name)};
    p.assign_getter(getter);
    cls->add_property(p.name(), p.build());
  }
  return cls;
}

Class_Generic logger_class() {
  auto cls = make_builtin_class("Logger", class_flags::final);
  method_builder_base log{String(u"log")};
  log.assign_func(make_method([](Logger self, LogRecord record) { self.log(record); }));
  log.signature(String(u"record"));
  log.assign_doc(String(u"Hands a record to the host's log sinks."));
  cls->add_method(log.name(), log.callable());
  return cls;
}
} // namespace
} // namespace internal

using namespace internal;

KEST_DEFINE_HANDLE(LogRecord, instance_derives(a, &LogRecord::getClass), record_class())
KEST_DEFINE_HANDLE(Logger, instance_derives(a, &Logger::getClass), logger_class())

LogRecord::LogRecord(std::int64_t level, const String &message)
    : Any(unchecked, Any(new object_value_log_record(level, message))) {}
// A handle made over a value of another class reads as a record of level 0 without text.
std::int64_t LogRecord::level() const {
  auto *r = native_if<object_value_log_record>(*this);
  return r ? r->level : 0;
}
String LogRecord::message() const {
  auto *r = native_if<object_value_log_record>(*this);
  return r ? r->message : String();
}

void Logger::log(const LogRecord &record) const {
  if (!LogRecord::isInstance(record)) // sinks read records; anything else is dropped
    return;
  std::vector<log_sink> targets;
  {
    auto &t = sinks();
    std::lock_guard guard(t.mutex);
    for (auto &[id, sink] : t.sinks) {
      const bool is_capture = std::find(t.captures.begin(), t.captures.end(), id) != t.captures.end();
      if (t.capturing == 0 || is_capture)
        targets.push_back(sink);
    }
  }
  for (auto &sink : targets)
    sink(record); // outside the lock: a sink may log again
}

Logger get_logger() {
  static const Logger logger(unchecked, [] {
    auto *l = new object_value_logger;
    l->make_immortal();
    return Any(l);
  }());
  return logger;
}

std::uint64_t add_log_sink(log_sink sink) {
  auto &t = sinks();
  std::lock_guard guard(t.mutex);
  const auto id = t.next_id++;
  t.sinks.emplace_back(id, std::move(sink));
  return id;
}

void remove_log_sink(std::uint64_t id) {
  log_sink removed;
  auto &t = sinks();
  std::lock_guard guard(t.mutex);
  for (auto it = t.sinks.begin(); it != t.sinks.end(); ++it)
    if (it->first == id) {
      removed = std::move(it->second);
      t.sinks.erase(it);
      return;
    }
}

std::string log_level_name(std::int64_t level) {
  switch (level) {
  case 10:
    return "DEBUG";
  case 20:
    return "INFO";
  case 30:
    return "WARNING";
  case 40:
    return "ERROR";
  case 50:
    return "CRITICAL";
  default:
    return fmt::format("Level {}", level);
  }
}

std::string log_line(const LogRecord &record) {
  return log_level_name(record.level()) + ": " + record.message().toUtf8();
}

struct log_capture::state {
  std::mutex mutex;
  std::vector<LogRecord> records;
  std::uint64_t id = 0;
};

log_capture::log_capture() : m_state(new state) {
  auto *s = m_state;
  s->id = add_log_sink([s](const LogRecord &r) {
    std::lock_guard guard(s->mutex);
    s->records.push_back(r);
  });
  auto &t = sinks();
  std::lock_guard guard(t.mutex);
  t.captures.push_back(s->id);
  ++t.capturing;
}

log_capture::~log_capture() {
  {
    auto &t = sinks();
    std::lock_guard guard(t.mutex);
    t.captures.erase(std::find(t.captures.begin(), t.captures.end(), m_state->id));
    --t.capturing;
  }
  remove_log_sink(m_state->id);
  delete m_state;
}

std::vector<LogRecord> log_capture::records() const {
  std::lock_guard guard(m_state->mutex);
  return m_state->records;
}

bool log_capture::contains(const String &text) const {
  std::lock_guard guard(m_state->mutex);
  for (auto &r : m_state->records)
    if (r.message().view() == text.view())
      return true;
  return false;
}

} // namespace kest
