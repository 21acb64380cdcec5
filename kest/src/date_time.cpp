// `kest::Date`, `kest::Time` and `kest::DateTime`: immutable calendar values.
// The parts are stored as given; `Date::isValid()` tells whether they form a
// real date. Dates use the proleptic Gregorian calendar.

#include <kest/date_time.hpp>
#include <kest/interfaces.hpp>

#include "builtin.hpp"

#include <utility>

namespace kest {

namespace {

struct object_value_date final : internal::native_instance<&Date::getClass> {
  object_value_date(std::int32_t y, std::uint8_t m, std::uint8_t d) : year(y), month(m), day(d) {}
  const std::int32_t year;
  const std::uint8_t month;
  const std::uint8_t day;
};

struct object_value_time final : internal::native_instance<&Time::getClass> {
  object_value_time(int h, int m, int s, std::uint32_t ns, std::optional<std::int32_t> offset,
                    String zone, bool f)
      : hour(h), minute(m), second(s), nanoseconds(ns), offset_seconds(offset),
        zone_name(std::move(zone)), fold(f) {}
  const int hour;
  const int minute;
  const int second;
  const std::uint32_t nanoseconds;
  /// Seconds east of UTC; empty for a naive time.
  const std::optional<std::int32_t> offset_seconds;
  const String zone_name;
  const bool fold;
};

struct object_value_date_time final : internal::native_instance<&DateTime::getClass> {
  object_value_date_time(Date d, Time t) : date(std::move(d)), time(std::move(t)) {}
  const Date date;
  const Time time;
};

// A handle made over a value of another class reads as the neutral value:
// the date 0-00-00 (not valid), the naive time 00:00:00, and both of them.
const object_value_date &date_of(const Any &d) noexcept {
  static const object_value_date neutral(0, 0, 0);
  auto *date = internal::native_if<const object_value_date>(d);
  return date ? *date : neutral;
}
const object_value_time &time_of(const Any &t) noexcept {
  static const object_value_time neutral(0, 0, 0, 0, std::nullopt, String(), false);
  auto *time = internal::native_if<const object_value_time>(t);
  return time ? *time : neutral;
}
const object_value_date_time *date_time_of(const Any &dt) noexcept {
  return internal::native_if<const object_value_date_time>(dt);
}

constexpr bool is_leap_year(std::int64_t year) noexcept {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

constexpr int days_in_month(std::int64_t year, int month) noexcept {
  constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && is_leap_year(year) ? 29 : days[month - 1];
}

/// Days from 1970-01-01 to the given date (negative before it). Counts years
/// from March, so that the leap day is the last day of its year, and groups
/// them into 400-year eras of 146097 days each.
constexpr std::int64_t days_from_civil(std::int64_t year, std::int64_t month,
                                       std::int64_t day) noexcept {
  year -= month <= 2 ? 1 : 0;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t year_of_era = year - era * 400;                              // [0, 399]
  const std::int64_t day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const std::int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

constexpr std::int64_t first_day = days_from_civil(1, 1, 1);

Class_Generic make_immutable_class(const char *name) {
  return internal::make_builtin_class(name, ::kest::class_flags::final, {&::kest::I_Immutable::getClass});
}

} // namespace

// Date ----------------------------------------------------------------------

KEST_DEFINE_HANDLE(Date, ::kest::internal::instance_derives(a, &Date::getClass),
                   make_immutable_class("Date"))

Date::Date(std::int32_t year, std::uint8_t month, std::uint8_t day)
    : Any(new object_value_date(year, month, day)) {}

std::int32_t Date::year() const { return date_of(*this).year; }

std::uint8_t Date::month() const { return date_of(*this).month; }

std::uint8_t Date::day() const { return date_of(*this).day; }

std::int64_t Date::ordinal() const {
  const auto &d = date_of(*this);
  return days_from_civil(d.year, d.month, d.day) - first_day;
}

bool Date::isValid() const {
  // The years of Python's `datetime.date` (1 to 9999).
  const auto &d = date_of(*this);
  return d.year >= 1 && d.year <= 9999 && d.month >= 1 && d.month <= 12 && d.day >= 1 &&
         d.day <= days_in_month(d.year, d.month);
}

// Time ----------------------------------------------------------------------

KEST_DEFINE_HANDLE(Time, ::kest::internal::instance_derives(a, &Time::getClass),
                   make_immutable_class("Time"))

namespace {
constexpr std::uint32_t microseconds_to_nanoseconds(int microsecond) noexcept {
  return static_cast<std::uint32_t>(microsecond) * 1000u;
}
} // namespace

Time::Time(int hour, int minute, int second, int microsecond)
    : Any(new object_value_time(hour, minute, second, microseconds_to_nanoseconds(microsecond),
                                std::nullopt, String(), false)) {}

Time::Time(int hour, int minute, int second, int microsecond, std::int32_t offsetSeconds,
           const String &zoneName, bool fold)
    : Any(new object_value_time(hour, minute, second, microseconds_to_nanoseconds(microsecond),
                                offsetSeconds, zoneName, fold)) {}

Time Time::fromNanoseconds(int hour, int minute, int second, std::uint32_t nanoSeconds,
                           std::optional<std::int32_t> offsetSeconds, const String &zoneName,
                           bool fold) {
  return Time::unsafeFrom(Any(
      new object_value_time(hour, minute, second, nanoSeconds, offsetSeconds, zoneName, fold)));
}

int Time::hour() const { return time_of(*this).hour; }

int Time::minute() const { return time_of(*this).minute; }

int Time::second() const { return time_of(*this).second; }

std::uint32_t Time::nanoSeconds() const { return time_of(*this).nanoseconds; }

bool Time::fold() const { return time_of(*this).fold; }

std::optional<std::int32_t> Time::offsetSeconds() const { return time_of(*this).offset_seconds; }

String Time::zoneName() const { return time_of(*this).zone_name; }

std::int64_t Time::totalNanoseconds() const {
  const auto &t = time_of(*this);
  const std::int64_t seconds =
      (static_cast<std::int64_t>(t.hour) * 60 + t.minute) * 60 + static_cast<std::int64_t>(t.second);
  return seconds * 1'000'000'000 + static_cast<std::int64_t>(t.nanoseconds);
}

// DateTime ------------------------------------------------------------------

KEST_DEFINE_HANDLE(DateTime, ::kest::internal::instance_derives(a, &DateTime::getClass),
                   make_immutable_class("DateTime"))

DateTime::DateTime(const Date &date, const Time &time)
    : Any(new object_value_date_time(date, time)) {}

Date DateTime::date() const {
  auto *dt = date_time_of(*this);
  return dt ? dt->date : Date(internal::unchecked, Any()); // an empty date reads as the neutral one
}

Time DateTime::time() const {
  auto *dt = date_time_of(*this);
  return dt ? dt->time : Time(internal::unchecked, Any()); // an empty time reads as the neutral one
}

} // namespace kest
