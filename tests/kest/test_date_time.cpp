#include <kest/class.hpp>
#include <kest/date_time.hpp>
#include <kest/interfaces.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

namespace {

using kest::Date;
using kest::DateTime;
using kest::Time;

TEST(Date, KeepsItsParts) {
  const Date d(2024, 2, 29);
  EXPECT_EQ(d.year(), 2024);
  EXPECT_EQ(d.month(), 2);
  EXPECT_EQ(d.day(), 29);
  const Date early(-44, 3, 15);
  EXPECT_EQ(early.year(), -44);
  EXPECT_EQ(early.month(), 3);
  EXPECT_EQ(early.day(), 15);
}

TEST(Date, OrdinalCountsDaysFromYearOne) {
  EXPECT_EQ(Date(1, 1, 1).ordinal(), 0);
  EXPECT_EQ(Date(1, 1, 2).ordinal(), 1);
  EXPECT_EQ(Date(1, 12, 31).ordinal(), 364);
  EXPECT_EQ(Date(2, 1, 1).ordinal(), 365);
  // Python's date.toordinal() minus one.
  EXPECT_EQ(Date(1970, 1, 1).ordinal(), 719162);
  EXPECT_EQ(Date(2000, 3, 1).ordinal(), 730179);
  EXPECT_EQ(Date(2024, 2, 29).ordinal(), 738944);
  EXPECT_EQ(Date(9999, 12, 31).ordinal(), 3652058);
  // Proleptic: the year before year one counts backwards.
  EXPECT_EQ(Date(0, 12, 31).ordinal(), -1);
}

TEST(Date, OrdinalStepsOverLeapDays) {
  EXPECT_EQ(Date(2000, 3, 1).ordinal() - Date(2000, 2, 28).ordinal(), 2);
  EXPECT_EQ(Date(1900, 3, 1).ordinal() - Date(1900, 2, 28).ordinal(), 1);
  EXPECT_EQ(Date(2024, 3, 1).ordinal() - Date(2024, 2, 28).ordinal(), 2);
  EXPECT_EQ(Date(2023, 3, 1).ordinal() - Date(2023, 2, 28).ordinal(), 1);
  EXPECT_EQ(Date(2024, 1, 1).ordinal() - Date(2023, 12, 31).ordinal(), 1);
}

TEST(Date, YearLengthsAgreeWithLeapDayValidity) {
  // Two independent rules must agree: the ordinal's year length and whether
  // 29 February exists.
  for (std::int32_t year = 1; year < 2500; ++year) {
    const std::int64_t length = Date(year + 1, 1, 1).ordinal() - Date(year, 1, 1).ordinal();
    EXPECT_EQ(length, Date(year, 2, 29).isValid() ? 366 : 365) << year;
  }
}

TEST(Date, OrdinalIsConsecutiveAcrossMonths) {
  // Walking every valid day of a leap year and a common year, the ordinal
  // grows by exactly one per day.
  for (std::int32_t year : {1900, 2000, 2023, 2024}) {
    std::int64_t previous = Date(year - 1, 12, 31).ordinal();
    int days = 0;
    for (std::uint8_t month = 1; month <= 12; ++month) {
      for (std::uint8_t day = 1; day <= 31; ++day) {
        const Date d(year, month, day);
        if (!d.isValid())
          continue;
        EXPECT_EQ(d.ordinal(), previous + 1) << year << "-" << int(month) << "-" << int(day);
        previous = d.ordinal();
        ++days;
      }
    }
    EXPECT_EQ(days, Date(year, 2, 29).isValid() ? 366 : 365) << year;
  }
}

TEST(Date, ValidityChecksRangesAndLeapYears) {
  EXPECT_TRUE(Date(2024, 2, 29).isValid());
  EXPECT_TRUE(Date(2000, 2, 29).isValid());
  EXPECT_FALSE(Date(2023, 2, 29).isValid());
  EXPECT_FALSE(Date(1900, 2, 29).isValid());
  EXPECT_TRUE(Date(2023, 2, 28).isValid());
  EXPECT_TRUE(Date(2023, 1, 31).isValid());
  EXPECT_FALSE(Date(2023, 4, 31).isValid());
  EXPECT_TRUE(Date(2023, 4, 30).isValid());
  EXPECT_TRUE(Date(2023, 12, 31).isValid());
  EXPECT_FALSE(Date(2023, 12, 32).isValid());
  EXPECT_FALSE(Date(2023, 0, 1).isValid());
  EXPECT_FALSE(Date(2023, 13, 1).isValid());
  EXPECT_FALSE(Date(2023, 1, 0).isValid());
  EXPECT_TRUE(Date(1, 1, 1).isValid());
  EXPECT_TRUE(Date(9999, 12, 31).isValid());
  EXPECT_FALSE(Date(0, 1, 1).isValid());
  EXPECT_FALSE(Date(10000, 1, 1).isValid());
}

TEST(Date, IsAnImmutableInstanceOfItsClass) {
  const Date d(2024, 1, 1);
  EXPECT_TRUE(Date::isInstance(d));
  EXPECT_FALSE(Time::isInstance(d));
  EXPECT_FALSE(DateTime::isInstance(d));
  EXPECT_EQ(Date::getClass().name().toUtf8(), "Date");
  EXPECT_TRUE(Date::getClass().derivesFrom(kest::I_Immutable::getClass()));
}

TEST(Time, NaiveTimeStoresMicrosecondsAsNanoseconds) {
  const Time t(1, 2, 3, 456789);
  EXPECT_EQ(t.hour(), 1);
  EXPECT_EQ(t.minute(), 2);
  EXPECT_EQ(t.second(), 3);
  EXPECT_EQ(t.nanoSeconds(), 456789000u);
  EXPECT_FALSE(t.offsetSeconds().has_value());
  EXPECT_EQ(t.zoneName().toUtf8(), "");
  EXPECT_FALSE(t.fold());
  EXPECT_EQ(t.totalNanoseconds(), ((1 * 60 + 2) * 60 + 3) * std::int64_t{1'000'000'000} + 456789000);
  EXPECT_EQ(Time(12, 0, 0).nanoSeconds(), 0u);
}

TEST(Time, KeepsFullNanosecondsAndFold) {
  const Time t = Time::fromNanoseconds(23, 59, 59, 999'999'999, std::nullopt, {}, true);
  EXPECT_EQ(t.hour(), 23);
  EXPECT_EQ(t.minute(), 59);
  EXPECT_EQ(t.second(), 59);
  EXPECT_EQ(t.nanoSeconds(), 999'999'999u);
  EXPECT_TRUE(t.fold());
  EXPECT_FALSE(t.offsetSeconds().has_value());
  // The last nanosecond of the day.
  EXPECT_EQ(t.totalNanoseconds(), 24 * 3600 * std::int64_t{1'000'000'000} - 1);

  const Time first = Time::fromNanoseconds(1, 30, 0, 1);
  EXPECT_FALSE(first.fold());
  EXPECT_EQ(first.nanoSeconds(), 1u);
  EXPECT_EQ(first.zoneName().toUtf8(), "");
}

TEST(Time, AwareTimeKeepsOffsetAndZoneName) {
  const Time paris(10, 30, 15, 250000, 3600, kest::String::fromUtf8("Europe/Paris"));
  ASSERT_TRUE(paris.offsetSeconds().has_value());
  EXPECT_EQ(*paris.offsetSeconds(), 3600);
  EXPECT_EQ(paris.zoneName().toUtf8(), "Europe/Paris");
  EXPECT_FALSE(paris.fold());
  EXPECT_EQ(paris.nanoSeconds(), 250'000'000u);

  const Time new_york = Time::fromNanoseconds(1, 30, 0, 123, -5 * 3600,
                                              kest::String::fromUtf8("America/New_York"), true);
  ASSERT_TRUE(new_york.offsetSeconds().has_value());
  EXPECT_EQ(*new_york.offsetSeconds(), -18000);
  EXPECT_EQ(new_york.zoneName().toUtf8(), "America/New_York");
  EXPECT_TRUE(new_york.fold());
  EXPECT_EQ(new_york.nanoSeconds(), 123u);

  // UTC is an offset of zero, which is not the same as no offset.
  const Time utc(0, 0, 0, 0, 0, kest::String::fromUtf8("UTC"));
  ASSERT_TRUE(utc.offsetSeconds().has_value());
  EXPECT_EQ(*utc.offsetSeconds(), 0);
}

TEST(Time, IsAnImmutableInstanceOfItsClass) {
  const Time t(8, 0, 0);
  EXPECT_TRUE(Time::isInstance(t));
  EXPECT_FALSE(Date::isInstance(t));
  EXPECT_EQ(Time::getClass().name().toUtf8(), "Time");
  EXPECT_TRUE(Time::getClass().derivesFrom(kest::I_Immutable::getClass()));
}

TEST(DateTime, KeepsItsDateAndTime) {
  const Date date(2021, 11, 7);
  const Time time = Time::fromNanoseconds(1, 30, 0, 5, -5 * 3600,
                                          kest::String::fromUtf8("America/New_York"), true);
  const DateTime dt(date, time);
  EXPECT_TRUE(dt.date().isSame(date));
  EXPECT_TRUE(dt.time().isSame(time));
  EXPECT_EQ(dt.date().year(), 2021);
  EXPECT_EQ(dt.date().month(), 11);
  EXPECT_EQ(dt.date().day(), 7);
  EXPECT_EQ(dt.time().hour(), 1);
  EXPECT_EQ(dt.time().minute(), 30);
  EXPECT_EQ(dt.time().nanoSeconds(), 5u);
  EXPECT_TRUE(dt.time().fold());
  EXPECT_EQ(dt.time().offsetSeconds(), std::optional<std::int32_t>(-18000));
  EXPECT_EQ(dt.time().zoneName().toUtf8(), "America/New_York");
}

TEST(DateTime, IsAnImmutableInstanceOfItsClass) {
  const DateTime dt(Date(2000, 1, 1), Time(0, 0, 0));
  EXPECT_TRUE(DateTime::isInstance(dt));
  EXPECT_FALSE(Date::isInstance(dt));
  EXPECT_FALSE(Time::isInstance(dt));
  EXPECT_EQ(DateTime::getClass().name().toUtf8(), "DateTime");
  EXPECT_TRUE(DateTime::getClass().derivesFrom(kest::I_Immutable::getClass()));
}

} // namespace
