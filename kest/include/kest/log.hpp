#pragma once
/// The host log: `LogRecord(level, message)` and a logger that hands records to
/// the installed sinks (by default one that writes `log_line` on standard error).
///
/// Levels follow Python's numbers: 10 debug, 20 info, 30 warning, 40 error,
/// 50 critical; other numbers are kept as they are.

#include <kest/union.hpp>
#include <kest/string.hpp>

#include <cstdint>
#include <functional>
#include <vector>

namespace kest {

class KEST_API LogRecord : public Any {
  KEST_HANDLE_MEMBERS(LogRecord, Any)
  LogRecord(std::int64_t level, const String &message);
  [[nodiscard]] std::int64_t level() const;
  [[nodiscard]] String message() const;
};

/// The host logger (an object of class `kest.Logger`, method "log").
class KEST_API Logger : public Any {
  KEST_HANDLE_MEMBERS(Logger, Any)
  /// Hands the record to every sink.
  void log(const LogRecord &record) const;
};

/// The process's logger.
KEST_API Logger get_logger();

using log_sink = std::function<void(const LogRecord &)>;
/// Installs a sink; returns its id.
KEST_API std::uint64_t add_log_sink(log_sink sink);
KEST_API void remove_log_sink(std::uint64_t id);
/// The name of a level ("INFO", ...; "Level 25" for other numbers, as Python's
/// `logging.getLevelName` names them).
KEST_API std::string log_level_name(std::int64_t level);
/// How the default sink writes a record on standard error, without the line
/// feed: the level name, ": " and the message as it is ("WARNING: a 1"; a
/// message of several lines keeps its line feeds).
KEST_API std::string log_line(const LogRecord &record);

/// Collects records while alive and silences the other sinks (for tests).
class KEST_API log_capture {
public:
  log_capture();
  ~log_capture();
  log_capture(const log_capture &) = delete;
  log_capture &operator=(const log_capture &) = delete;
  [[nodiscard]] std::vector<LogRecord> records() const;
  /// True when a record's message equals `text`.
  [[nodiscard]] bool contains(const String &text) const;

private:
  struct state;
  state *m_state;
};

} // namespace kest
