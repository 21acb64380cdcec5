#pragma once
/// `kest::Date`, `kest::Time` and `kest::DateTime`.

#include <kest/error.hpp>

#include <cstdint>
#include <optional>

namespace kest {

/// A calendar date. A handle made over a value of another class (or an empty
/// one) reads as the date 0-00-00, which is not valid.
class KEST_API Date : public Any {
  KEST_HANDLE_MEMBERS(Date, Any)
  Date(std::int32_t year, std::uint8_t month, std::uint8_t day);
  [[nodiscard]] std::int32_t year() const;
  [[nodiscard]] std::uint8_t month() const;
  [[nodiscard]] std::uint8_t day() const;
  /// Days since 0001-01-01 (proleptic Gregorian calendar).
  [[nodiscard]] std::int64_t ordinal() const;
  [[nodiscard]] bool isValid() const;
};

/// A time of day with nanoseconds, optionally aware (UTC offset and zone name),
/// and the fold flag that tells a repeated local time from its first occurrence.
/// A handle made over a value of another class reads as the naive time 00:00:00.
class KEST_API Time : public Any {
  KEST_HANDLE_MEMBERS(Time, Any)
  /// A naive time; `microsecond` becomes nanoseconds.
  Time(int hour, int minute, int second, int microsecond = 0);
  /// An aware time.
  Time(int hour, int minute, int second, int microsecond, std::int32_t offsetSeconds,
       const String &zoneName, bool fold = false);
  static Time fromNanoseconds(int hour, int minute, int second, std::uint32_t nanoSeconds,
                              std::optional<std::int32_t> offsetSeconds = {},
                              const String &zoneName = {}, bool fold = false);
  [[nodiscard]] int hour() const;
  [[nodiscard]] int minute() const;
  [[nodiscard]] int second() const;
  [[nodiscard]] std::uint32_t nanoSeconds() const;
  [[nodiscard]] bool fold() const;
  [[nodiscard]] std::optional<std::int32_t> offsetSeconds() const;
  [[nodiscard]] String zoneName() const;
  /// Nanoseconds since midnight, local.
  [[nodiscard]] std::int64_t totalNanoseconds() const;
};

/// A date and a time; a handle made over another class reads as both neutral values.
class KEST_API DateTime : public Any {
  KEST_HANDLE_MEMBERS(DateTime, Any)
  DateTime(const Date &date, const Time &time);
  [[nodiscard]] Date date() const;
  [[nodiscard]] Time time() const;
};

} // namespace kest
