#include <tqcore/error_exception.h>
#include <tqcore/simple_date_time.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <sstream>
#include <string>

#include "test_support.h"

namespace tqcore {
namespace {

AbsoluteTime utc(char const* text) { return AbsoluteTime::from_string(text, std::strlen(text)); }

SimpleDateTime parse(char const* text) {
  return SimpleDateTime::from_string(text, std::strlen(text));
}

ErrorInfo::Ptr parse_error(char const* text) {
  SimpleDateTime untouched(utc("1999-12-31T00:00:00"), 42);
  ErrorInfo::Ptr error = SimpleDateTime::from_string_nothrow(text, std::strlen(text), &untouched);
  // A failure leaves the output as it was.
  EXPECT_EQ(untouched.timezone_offset(), 42) << text;
  return error;
}

struct Accepted {
  char const* text;
  int offset;
  char const* base;     // base_time_utc().as_string()
  char const* written;  // as_string()
};

// Rows show by their first field in test names and failure messages.
void PrintTo(Accepted const& row, std::ostream* out) { *out << ::testing::PrintToString(row.text); }

class SimpleDateTimeAccepts : public testing::TestWithParam<Accepted> {};

TEST_P(SimpleDateTimeAccepts, ReadsBaseAndOffset) {
  Accepted const& c = GetParam();
  SimpleDateTime const value = parse(c.text);
  EXPECT_EQ(value.timezone_offset(), c.offset);
  EXPECT_EQ(value.base_time_utc().as_string(), c.base);
  EXPECT_EQ(value.as_string(), c.written);
  // The written form reads back as the same value.
  EXPECT_EQ(parse(value.as_string().c_str()), value);
  EXPECT_EQ(parse(value.as_string().c_str()).timezone_offset(), value.timezone_offset());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Forms, SimpleDateTimeAccepts,
    testing::Values(
        Accepted{"2000-01-01T12:00:00+01:00", 60, "2000-01-01 12:00:00.0", "2000-01-01 12:00:00.0+01:00"},
        Accepted{"2000-01-01T12:00:00Z", 0, "2000-01-01 12:00:00.0", "2000-01-01 12:00:00.0Z"},
        Accepted{"2000-01-01T12:00:00z", 0, "2000-01-01 12:00:00.0", "2000-01-01 12:00:00.0Z"},
        Accepted{"2000-01-01T12:00:00", 0, "2000-01-01 12:00:00.0", "2000-01-01 12:00:00.0Z"},
        Accepted{"2000-01-01T12:00:00-0530", -330, "2000-01-01 12:00:00.0", "2000-01-01 12:00:00.0-05:30"},
        Accepted{"2000-01-01T12:00:00+05", 300, "2000-01-01 12:00:00.0", "2000-01-01 12:00:00.0+05:00"},
        Accepted{"2000-01-01T12:00:00-00:00", 0, "2000-01-01 12:00:00.0", "2000-01-01 12:00:00.0Z"},
        // Hours are not limited by the reader: the offset is normalised into a day shift.
        Accepted{"2000-01-01T12:00:00+13:00", -660, "2000-01-02 12:00:00.0", "2000-01-02 12:00:00.0-11:00"},
        Accepted{"##INFINITE##", 0, "##INFINITE##", "##INFINITE##"}));
// clang-format on

struct Rejected {
  char const* text;
  char const* message;  // the start of the expanded message
  bool has_cause;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(Rejected const& row, std::ostream* out) { *out << ::testing::PrintToString(row.text); }

class SimpleDateTimeRejects : public testing::TestWithParam<Rejected> {};

TEST_P(SimpleDateTimeRejects, WithTheReasonAndTheWholeText) {
  Rejected const& c = GetParam();
  ErrorInfo::Ptr const error = parse_error(c.text);
  ASSERT_TRUE(error) << c.text;
  EXPECT_TRUE(error->matches(error::tqcore_simpleDateTime_invalidString));
  std::string const message = error->expanded_message().as_string();
  EXPECT_EQ(message.rfind(c.message, 0), 0u) << message;
  EXPECT_NE(message.find(std::string("\"") + c.text + "\""), std::string::npos) << message;
  EXPECT_EQ(error->params().get_value("dateTime"), c.text);
  EXPECT_EQ(error->nested() != nullptr, c.has_cause);
  EXPECT_EQ(error->location().function(), "tqcore::SimpleDateTime::from_string_nothrow()");
  EXPECT_THROW(parse(c.text), ErrorException);
}

constexpr char kBase[] =
    "Parsing UTC base of simple date/time failed (must be ISO8601).  Argument: ";
constexpr char kForm[] =
    "Invalid timezone offset in date/time string (must be hh:mm, hhmm, or hh): ";
constexpr char kAfterZ[] =
    "Invalid timezone offset in date/time string (nothing allowed after 'Z' designator): ";
constexpr char kMinutes[] = "Minutes in timezone must be 0...59: ";
constexpr char kRange[] = "Components of UTC date/time string exceeds date range: ";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Failures, SimpleDateTimeRejects,
                         testing::Values(
        Rejected{"2000-01-01T12:00:00+5", kForm, false},
        Rejected{"2000-01-01T12:00:00+0530x", kForm, false},
        Rejected{"2000-01-01T12:00:00+05.30", kForm, false},
        Rejected{"2000-01-01T12:00:00+a1:00", kForm, false},
        Rejected{"2000-01-01T12:00:00+01:60", kMinutes, false},
        Rejected{"2000-01-01T12:00:00Z1", kAfterZ, false},
        Rejected{"2000-01-01", kBase, true},
        Rejected{"", kBase, true},
        Rejected{"+01:00", kBase, true},
        // Offsets that would carry the base out of range.
        Rejected{"22620411T0000+23", kRange, true},
        Rejected{"16770921T1200-23", kRange, true},
        Rejected{"22620410T234716.854775807+1201", kRange, true}));
// clang-format on

struct Normalised {
  int minutes;
  int offset;
  int day_shift;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(Normalised const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.minutes);
}

class SimpleDateTimeNormalises : public testing::TestWithParam<Normalised> {};

TEST_P(SimpleDateTimeNormalises, WholeDaysMoveIntoTheBaseAndLocalTimeStays) {
  Normalised const& c = GetParam();
  AbsoluteTime const base = utc("2000-06-15T08:30:00");
  SimpleDateTime const value(base, c.minutes);
  EXPECT_EQ(value.timezone_offset(), c.offset);
  EXPECT_EQ(value.base_time_utc() - base, RelativeTime::days(c.day_shift));
  EXPECT_EQ(value.as_local_time(), base + RelativeTime::minutes(c.minutes));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Offsets, SimpleDateTimeNormalises,
                         testing::Values(
        Normalised{720, 720, 0},
        Normalised{-720, -720, 0},
        Normalised{721, -719, 1},
        Normalised{-721, 719, -1},
        Normalised{2160, -720, 2},
        Normalised{2161, -719, 2},
        Normalised{-2161, 719, -2},
        Normalised{0, 0, 0}));
// clang-format on

// Offsets that move the base by thousands of years leave the range: a failure, never a wrap.
TEST(SimpleDateTime, ExtremeOffsetsAreRangeFailures) {
  for (int minutes : {INT_MAX, INT_MIN}) {
    ErrorInfo::Ptr const error =
        tqcore_test::raised_by([&] { SimpleDateTime(AbsoluteTime::zero, minutes); });
    EXPECT_TRUE(error && error->matches(error::tqcore_absoluteTime_range)) << minutes;
  }
}

}  // namespace
}  // namespace tqcore
