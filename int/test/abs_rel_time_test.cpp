#include <tqcore/abs_rel_time.h>
#include <tqcore/error_exception.h>
#include <tqcore/testing/matchers.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <random>
#include <sstream>
#include <string>

namespace tqcore {
namespace {

constexpr long long kMin = impl::TimeBase::TIMEVALUE_MIN;
constexpr long long kInfinite = impl::TimeBase::TIMEVALUE_INFINITE;

TEST(TimeValues, InfiniteIsAbsorbingInSumsAndDecaysInProducts) {
  RelativeTime const infinite = RelativeTime::infinite;
  EXPECT_TRUE(infinite.is_positive());
  EXPECT_FALSE(infinite.is_min_time());
  EXPECT_FALSE(infinite.is_max_time());
  EXPECT_TRUE((infinite + RelativeTime::seconds(1)).is_infinite());
  EXPECT_TRUE((RelativeTime::seconds(1) - infinite).is_infinite());  // no negative infinity
  EXPECT_TRUE((AbsoluteTime::zero + infinite).is_infinite());
  AbsoluteTime deadline = AbsoluteTime::infinite;
  deadline -= RelativeTime::seconds(5);
  EXPECT_TRUE(deadline.is_infinite());
  EXPECT_EQ((infinite * 2.0).as_nsec(), kMin);
  EXPECT_EQ((infinite * 0.0).as_nsec(), kMin);
  EXPECT_EQ((RelativeTime(1, 0) * 2.5).as_nsec(), 2500000000LL);
  RelativeTime scaled = RelativeTime::seconds(3);
  scaled *= 0.5;
  EXPECT_EQ(scaled.as_nsec(), 1500000000LL);
  // A product between 2^63 and 2^64 keeps its bits; beyond, TIMEVALUE_MIN.
  EXPECT_EQ((RelativeTime::seconds(5000000) * 2000.0).as_nsec(),
            static_cast<long long>(static_cast<uint64_t>(1e19)));
  EXPECT_EQ((RelativeTime::seconds(5000000) * 4000.0).as_nsec(), kMin);
}

// clock_gettime and gettimeofday give 64-bit seconds: times after 2038 read right.
TEST(TimeValues, ReadersKeepSecondsBeyond2038) {
  EXPECT_EQ(AbsoluteTime(timespec{3000000000, 5}).as_string(), "2065-01-24 05:20:00.000000005");
  EXPECT_EQ(AbsoluteTime(timeval{3000000000, 7}).as_nsec(), 3000000000000007000LL);
  EXPECT_EQ(AbsoluteTime(timespec{-3000000000, 0}).as_nsec(), -3000000000000000000LL);
}

TEST(TimeValues, WindowsFormsRoundTrip) {
  AbsoluteTime const moment = AbsoluteTime::from_nsec(1700000000123456700LL);
  win32::FileTime const ft = moment.as_filetime();
  EXPECT_EQ(AbsoluteTime(ft, false), moment);
  win32::SystemTime const st = moment.as_systemtime();
  EXPECT_EQ(st.year, 2023);
  EXPECT_EQ(st.month, 11);
  EXPECT_EQ(st.day, 14);
  EXPECT_EQ(st.day_of_week, 2);  // a Tuesday
  EXPECT_EQ(st.hour, 22);
  EXPECT_EQ(st.minute, 13);
  EXPECT_EQ(st.second, 20);
  EXPECT_EQ(st.milliseconds, 123);
  EXPECT_EQ(AbsoluteTime(st, false).as_nsec(), 1700000000123000000LL);
  EXPECT_EQ(AbsoluteTime::infinite.as_filetime().high_date_time, 0xFFFFFFFFu);
  EXPECT_FALSE(AbsoluteTime(impl::TimeBase::MAX_FILETIME, false).is_infinite());
  EXPECT_EQ(AbsoluteTime::infinite.as_systemtime().year, 30827);
  // Local time by the C library's zone: in UTC the two readings agree.
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(AbsoluteTime(ft, true), moment);
  setenv("TZ", "XYZ-1", 1);  // a POSIX zone one hour east of UTC: needs no tzdata
  tzset();
  EXPECT_EQ((moment - AbsoluteTime(ft, true)).as_nsec(), 3600LL * 1000000000);
  unsetenv("TZ");
  tzset();
}

}  // namespace
}  // namespace tqcore

namespace tqcore {
namespace {

using Components = AbsoluteTime::Components;

// Components against the C library's own calendar over the whole range, and back again.
TEST(Calendar, AgreesWithGmtimeAcrossTheRange) {
  std::mt19937_64 random(31);
  for (int k = 0; k < 200000; ++k) {
    long long const value = static_cast<long long>(random());
    if (value == impl::TimeBase::TIMEVALUE_INFINITE) continue;
    AbsoluteTime const t = AbsoluteTime::from_nsec(value);
    Components const c = t.as_components();
    long long seconds = value / 1000000000;
    long long ns = value % 1000000000;
    if (ns < 0) {
      --seconds;
      ns += 1000000000;
    }
    time_t const as_time_t = static_cast<time_t>(seconds);
    tm expected{};
    ASSERT_NE(gmtime_r(&as_time_t, &expected), nullptr);
    ASSERT_EQ(c, Components(static_cast<short>(expected.tm_year + 1900), expected.tm_mon + 1,
                            expected.tm_mday, expected.tm_hour, expected.tm_min, expected.tm_sec,
                            static_cast<unsigned>(ns)))
        << value;
    ASSERT_EQ(c.day_of_week(), (expected.tm_wday + 6) % 7) << value;
    ASSERT_EQ(AbsoluteTime::from_components(c), t) << value;
  }
}

}  // namespace
}  // namespace tqcore

namespace tqcore {
namespace {

struct UtcCase {
  char const* text;
  char const* expected;  // as_string() of the result, or the expanded failure message
};

// Rows show by their first field in test names and failure messages.
void PrintTo(UtcCase const& row, std::ostream* out) { *out << ::testing::PrintToString(row.text); }

class UtcParser : public ::testing::TestWithParam<UtcCase> {};

TEST_P(UtcParser, ParsesOrRefusesWithItsMessage) {
  UtcCase const& c = GetParam();
  AbsoluteTime out = AbsoluteTime::from_nsec(42);
  ErrorInfo::Ptr error = AbsoluteTime::from_string_nothrow(c.text, std::strlen(c.text), &out);
  if (error) {
    EXPECT_THAT(error, ::testing::AllOf(
                           tqcore::testing::HasCode("error.tqcore.absoluteTime.invalidUtcString"),
                           tqcore::testing::HasMessage(c.expected)));
    EXPECT_EQ(out.as_nsec(), 42);  // nothing written on failure
  } else {
    EXPECT_EQ(out.as_string(), c.expected) << c.text;
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, UtcParser,
    ::testing::Values(
        UtcCase{"inf", "##INFINITE##"},
        UtcCase{"9999-12-31T23:59:59.999999999Z", "##INFINITE##"},
        UtcCase{"2000-01-01 00:00:00", "2000-01-01 00:00:00.0"},
        UtcCase{"20000101T00", "Invalid UTC time string: \"20000101T00\""},
        UtcCase{"2000-01-01T12.5", "2000-01-01 12:30:00.0"},
        UtcCase{"2000-01-01T1230,5", "2000-01-01 12:30:30.0"},
        UtcCase{"2000-01-01T12:30,5", "Invalid time in UTC time string \"2000-01-01T12:30,5\""},
        UtcCase{"2000-01-01T24:00:00", "2000-01-02 00:00:00.0"},
        UtcCase{"2000-01-01T24:00:00.000000001", "Invalid time in UTC time string.  Time must be 00:00:00...24:00:00 (inclusive). \"2000-01-01T24:00:00.000000001\""},
        UtcCase{"2000-01-01T12:30:15.1234567895", "2000-01-01 12:30:15.12345679"},
        UtcCase{"2000-01-01T12:30:15.1234567895x", "Invalid time in UTC time string \"2000-01-01T12:30:15.1234567895x\""},
        UtcCase{"2000-01-01T12:30:15+01:00", "Invalid time in UTC time string (time must be UTC, no timezone offset) \"2000-01-01T12:30:15+01:00\""},
        UtcCase{"2000-01-01T12:30:15Zx", "Invalid time in UTC time string (unexpected characters after 'Z') \"2000-01-01T12:30:15Zx\""},
        UtcCase{"2000-01-01X00:00:00", "Invalid date/time separator in UTC time string.  Expecting ' ' or 'T': \"2000-01-01X00:00:00\""},
        UtcCase{"1600-01-01T00:00:00Z", "Components of UTC date/time string exceeds date range: \"1600-01-01T00:00:00Z\""},
        // The usual shape at the edges of the range and of its fraction.
        UtcCase{"1677-09-21T00:12:43.145224192Z", "1677-09-21 00:12:43.145224192"},
        UtcCase{"2262-04-11T23:47:16.854775806z", "2262-04-11 23:47:16.854775806"},
        UtcCase{"2262-04-11T23:47:16.854775807Z", "Components of UTC date/time string exceeds date range: \"2262-04-11T23:47:16.854775807Z\""}));
// clang-format on

TEST(UtcText, WritersAndRoundTrips) {
  EXPECT_EQ(AbsoluteTime::from_nsec(1).as_string(), "1970-01-01 00:00:00.000000001");
  EXPECT_EQ(AbsoluteTime::from_nsec(0).as_iso8601_string(), "1970-01-01T00:00:00.0Z");
  EXPECT_EQ(AbsoluteTime::infinite.as_iso8601_string(), "9999-12-31T23:59:59.999999999Z");
  std::ostringstream out;
  out.width(25);
  out << AbsoluteTime::from_nsec(0);
  EXPECT_EQ(out.str(), "    1970-01-01 00:00:00.0");
  std::mt19937_64 random(41);
  for (int k = 0; k < 20000; ++k) {
    AbsoluteTime const t =
        AbsoluteTime::from_nsec(static_cast<long long>(random() >> 1) * (random() % 2 ? 1 : -1));
    ASSERT_EQ(AbsoluteTime::from_string(t.as_string()), t) << t.as_string();
    ASSERT_EQ(AbsoluteTime::from_string(t.as_iso8601_string()), t) << t.as_iso8601_string();
  }
  ErrorInfo::Ptr cause = AbsoluteTime::from_string_nothrow("1600-01-01T00:00:00Z", nullptr);
  EXPECT_THAT(cause, tqcore::testing::AnyMatches("error.tqcore.absoluteTime.range"));
  EXPECT_FALSE(AbsoluteTime::from_string_nothrow("2000-01-01 00:00:00", nullptr));
  EXPECT_THROW(AbsoluteTime::from_string("garbage"), ErrorException);
}

}  // namespace
}  // namespace tqcore

namespace tqcore {
namespace {

struct DurationCase {
  char const* text;
  long long nanoseconds;  // when it parses
  char const* failure;    // otherwise, the start of the expanded message
};

// Rows show by their first field in test names and failure messages.
void PrintTo(DurationCase const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.text);
}

class DurationParser : public ::testing::TestWithParam<DurationCase> {};

TEST_P(DurationParser, ParsesOrRefuses) {
  DurationCase const& c = GetParam();
  RelativeTime out = RelativeTime::nanoseconds(42);
  ErrorInfo::Ptr error = RelativeTime::from_string_nothrow(c.text, &out);
  if (c.failure == nullptr) {
    EXPECT_FALSE(error) << c.text << ": " << error;
    EXPECT_EQ(out.as_nsec(), c.nanoseconds) << c.text;
  } else {
    ASSERT_TRUE(error) << c.text;
    EXPECT_TRUE(error->matches("error.tqcore.relativeTime.invalidTimeString"));
    EXPECT_EQ(error->expanded_message().as_string().rfind(c.failure, 0), 0u)
        << error->expanded_message().as_string();
  }
}

constexpr long long kS = 1000000000LL;
constexpr long long kInf = impl::TimeBase::TIMEVALUE_INFINITE;

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, DurationParser,
    ::testing::Values(
        DurationCase{"INF", kInf, nullptr},
        DurationCase{"infinite", 0, "Invalid value in time string \"infinite\", length=8"},
        DurationCase{"", 0, nullptr},
        DurationCase{"1.5", 0, nullptr},
        DurationCase{"1.5s", 1500000000LL, nullptr},
        DurationCase{"1 s", 0, "Syntax error processing time string \"1 s\", length=3"},
        DurationCase{"1.2.3s", 0, "Syntax error processing time string"},
        DurationCase{"1h 30m", 5400 * kS, nullptr},
        DurationCase{"5u", 0, "Unexpected end of string in time string \"5u\", length=2"},
        DurationCase{"106752d", 0, "Value overflow processing time string"},
        DurationCase{"106751d", 106751LL * 86400 * kS, nullptr},
        DurationCase{"2562047h 2562047h", kInf, nullptr},
        DurationCase{"1d 2h 3m 4.5s 6ms 7us 8ns", 93784506007008LL, nullptr},
        DurationCase{"P0Y0M1D", 86400 * kS, nullptr},
        // Fractions whose rounding term once wrapped past 64 bits.
        DurationCase{"P0.0000000000003045W", 184, nullptr},
        DurationCase{"P0.00000000000030450W", 184, nullptr},
        DurationCase{"PT0.000000018446744071S", 18, nullptr},
        DurationCase{"P1Y", 0, "Units Y(year) and M(onth) are not supported because they are ambiguous without a reference date (position 2)"},
        DurationCase{"PT1W", 0, "Unit W(eeks) not supported after the 'T' separator (position 3)"},
        DurationCase{"P0MT1M", 60 * kS, nullptr},
        DurationCase{"P9223372036854775808S", 0, "Value of time segment exceeds 2^63-1 at position 19"},
        DurationCase{"PT5", 0, "Expecting unit after time value digits (position 3)"},
        DurationCase{"P5X", 0, "Unexpected time unit at position 2"},
        DurationCase{"PT1ST", 0, "Only one 'T' separator allowed (position 4)"},
        DurationCase{"P", 0, "Expecting time value after 'P' at position 1"},
        DurationCase{"P1S1W", 604801 * kS, nullptr},
        DurationCase{"PT1.0000000005S", 1000000001LL, nullptr},
        DurationCase{"P999999DT23H59M59.999999999S", kInf, nullptr}));
// clang-format on

TEST(DurationText, BothFormsRoundTrip) {
  std::mt19937_64 random(43);
  for (int k = 0; k < 20000; ++k) {
    long long const value =
        static_cast<long long>(random() >> (1 + random() % 63)) * (random() % 2 ? 1 : -1);
    RelativeTime const t = RelativeTime::nanoseconds(value);
    ASSERT_EQ(RelativeTime::from_string(t.as_string()), t) << t.as_string();
    ASSERT_EQ(RelativeTime::from_string(t.as_iso8601_string()), t) << t.as_iso8601_string();
  }
}

// An independent days-from-civil (proleptic Gregorian, eras of 400 years), for the Julian day
// formulas: day 0 is 1970-01-01, Julian day 2440588.
long long days_from_civil(long long y, unsigned m, unsigned d) {
  y -= m <= 2;
  long long const era = (y >= 0 ? y : y - 399) / 400;
  unsigned const yoe = static_cast<unsigned>(y - era * 400);
  unsigned const doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  unsigned const doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<long long>(doe) - 719468;
}

TEST(Calendar, JulianDaysAgreeWithAnIndependentCalendar) {
  constexpr long long kUnixJulianDay = 2440588;
  long long const first = days_from_civil(1, 1, 1) + kUnixJulianDay;
  long long const last = days_from_civil(9999, 12, 31) + kUnixJulianDay;
  // Every day of the four centuries around the epoch, and a prime stride over the rest.
  long long const dense_from = days_from_civil(1800, 1, 1) + kUnixJulianDay;
  long long const dense_to = days_from_civil(2200, 1, 1) + kUnixJulianDay;
  for (long long jdn = first; jdn <= last; jdn += (jdn >= dense_from && jdn < dense_to) ? 1 : 97) {
    Components const c(static_cast<int>(jdn));
    ASSERT_EQ(days_from_civil(c.year(), c.month(), c.day()) + kUnixJulianDay, jdn);
    ASSERT_EQ(c.julian_day(), jdn);
    ASSERT_GE(c.day(), 1);
    ASSERT_LE(c.day(), 31);
  }
}

}  // namespace
}  // namespace tqcore
