// UTC date-time text: the two writers and the hand-written parser.
#include <tqcore/abs_rel_time.h>
#include <tqcore/error_builder.h>
#include <tqcore/error_exception.h>
#include <tqcore/string_util.h>

#include <cstdio>
#include <ostream>

#include "abs_rel_time_internal.h"
#include "file_ids.h"

namespace tqcore {
namespace {

char const kFileId[] = TQCORE_FILE_ID("abs_rel_time");

// "yyyy-mm-dd hh:mm:ss.f" with the fraction's trailing zeros dropped (one digit stays).
std::string written(AbsoluteTime const& time, char separator, bool zulu) {
  AbsoluteTime::Components const c = time.as_components();
  impl::TimeText text;
  // Every AbsoluteTime lies within four-digit years (1601 +- 292).
  text.digits(static_cast<unsigned>(c.year()), 4);
  text.put('-').digits(c.month(), 2).put('-').digits(c.day(), 2).put(separator);
  text.digits(c.hour(), 2).put(':').digits(c.minute(), 2).put(':').digits(c.second(), 2).put('.');
  size_t const fraction = text.size();
  text.digits(c.nanosecond(), 9).trim_zeros(fraction + 1);
  if (zulu) text.put('Z');
  return text.str();
}

// Nanoseconds per unit of the n-th fraction digit's place, n = 0..9.
constexpr uint32_t kScale[10] = {1000000000, 100000000, 10000000, 1000000, 100000,
                                 10000,      1000,      100,      10,      1};

// Reads the failures of the parser: one code, the text as given, one function name.
class UtcParser {
 public:
  UtcParser(char const* text, size_t size) : m_text(text), m_p(text), m_end(text + size) {}

  ErrorInfo::Ptr parse(AbsoluteTime* out);

 private:
  static constexpr uint64_t kHour = 3600000000000ULL;
  static constexpr uint64_t kMinute = 60000000000ULL;
  static constexpr uint64_t kSecond = 1000000000ULL;
  enum class State { hours, minutes, seconds, fraction, after_time, done };

  ErrorInfo::Ptr fail(char const* message, ErrorInfo::Ptr cause = nullptr) const {
    return ErrorComposer(message)
        .param(SourceString::create_reference("utcTime"),
               std::string_view(m_text, static_cast<size_t>(m_end - m_text)))
        .create(error::tqcore_absoluteTime_invalidUtcString,
                SourceLocation("tqcore::AbsoluteTime::from_string_nothrow()", kFileId, __LINE__),
                std::move(cause));
  }
  bool digits(char const* at, int count, unsigned* value) const {
    if (m_end - at < count) return false;
    unsigned v = 0;
    for (int k = 0; k < count; ++k) {
      unsigned const d = static_cast<unsigned char>(at[k]) - '0';
      if (d > 9) return false;
      v = v * 10 + d;
    }
    *value = v;
    return true;
  }
  bool read_date(AbsoluteTime::Components* date);
  // The next state after a field, or null for a failure message.
  char const* read_field(unsigned limit, uint64_t unit_size);
  char const* common_step(State* state);
  char const* read_fraction();
  bool read_common_time();
  bool is_infinite_reading(AbsoluteTime::Components const& date) const;
  char const* run_time_machine();

  char const* m_text;
  char const* m_p;
  char const* m_end;
  uint64_t m_total = 0;
  uint64_t m_unit = 0;
  char m_separator = 0;
};

char const kInvalidTime[] = "Invalid time in UTC time string \"{@utcTime}\"";

bool UtcParser::read_date(AbsoluteTime::Components* date) {
  unsigned year = 0;
  unsigned month = 0;
  unsigned day = 0;
  if (digits(m_text, 4, &year) && m_text[4] == '-' && digits(m_text + 5, 2, &month) &&
      m_text[7] == '-' && digits(m_text + 8, 2, &day)) {
    m_p = m_text + 10;
  } else if (digits(m_text, 4, &year) && digits(m_text + 4, 2, &month) &&
             digits(m_text + 6, 2, &day)) {
    m_p = m_text + 8;
  } else {
    return false;
  }
  if (month < 1 || month > 12 || day < 1 || day > 31) return false;  // the month's length is not
  date->year(static_cast<short>(year));                              // checked: 02-31 passes
  date->month(static_cast<unsigned short>(month));
  date->day(static_cast<unsigned short>(day));
  return true;
}

char const* UtcParser::read_field(unsigned limit, uint64_t unit_size) {
  unsigned value = 0;
  if (!digits(m_p, 2, &value) || value > limit) return kInvalidTime;
  m_p += 2;
  m_total += value * unit_size;
  m_unit = unit_size;
  return nullptr;
}

// A fraction of the last field read; the tenth digit of a second rounds.
char const* UtcParser::read_fraction() {
  // The first nine digits as one number: every field's unit is a multiple of 10^9, so this is
  // exactly the digit-by-digit sum, without a division per digit.
  char const* p = m_p;
  uint32_t leading = 0;
  int n = 0;
  for (; n < 9 && p != m_end && static_cast<unsigned>(static_cast<unsigned char>(*p) - '0') <= 9u;
       ++n, ++p) {
    leading = leading * 10 + static_cast<uint32_t>(*p - '0');
  }
  uint64_t unit = m_unit / 1000000000 * kScale[n];
  uint64_t total = m_total + uint64_t{leading} * unit;
  char const* failure = nullptr;
  for (; p != m_end && *p != 'Z' && *p != 'z'; ++p) {
    unsigned const d = static_cast<unsigned char>(*p) - '0';
    if (d > 9) {
      failure = kInvalidTime;
      break;
    }
    if (unit == 0) continue;
    unit /= 10;
    if (unit != 0) {
      total += d * unit;
    } else if (d >= 5) {
      total += 1;
    }
  }
  m_p = p;
  m_unit = unit;
  m_total = total;
  return failure;
}

// The shape nearly every caller writes, "hh:mm:ss[.fffffffff][Z]", read in one pass. Anything
// else, including 24:00:00, leap seconds and longer fractions, is left to the state machine,
// which reads this shape to the same value.
bool UtcParser::read_common_time() {
  char const* p = m_p;
  unsigned hour = 0;
  unsigned minute = 0;
  unsigned second = 0;
  if (!digits(p, 2, &hour) || hour > 23 || m_end - p < 8 || p[2] != ':' ||
      !digits(p + 3, 2, &minute) || minute > 59 || p[5] != ':' || !digits(p + 6, 2, &second) ||
      second > 59) {
    return false;
  }
  p += 8;
  uint32_t fraction = 0;
  int n = 0;
  if (p != m_end && *p == '.') {
    for (++p;
         n < 9 && p != m_end && static_cast<unsigned>(static_cast<unsigned char>(*p) - '0') <= 9u;
         ++n, ++p) {
      fraction = fraction * 10 + static_cast<uint32_t>(*p - '0');
    }
    if (n == 0) return false;
  }
  if (p != m_end && (*p == 'Z' || *p == 'z')) ++p;
  if (p != m_end) return false;
  m_total = hour * kHour + minute * kMinute + second * kSecond + uint64_t{fraction} * kScale[n];
  m_p = p;
  return true;
}

char const* UtcParser::common_step(State* state) {
  if (m_p == m_end) {
    *state = State::done;
  } else if (*m_p == '.' || *m_p == ',') {
    ++m_p;
    *state = State::fraction;
  } else if (*m_p == 'Z' || *m_p == 'z') {
    if (++m_p != m_end) {
      return "Invalid time in UTC time string (unexpected characters after 'Z') \"{@utcTime}\"";
    }
    *state = State::after_time;
  } else if (*m_p == '+' || *m_p == '-') {
    return "Invalid time in UTC time string (time must be UTC, no timezone offset) "
           "\"{@utcTime}\"";
  }
  return nullptr;
}

char const* UtcParser::run_time_machine() {
  State state = State::hours;
  while (state != State::done) {
    char const* failure = nullptr;
    switch (state) {
      case State::hours:
        failure = read_field(24, kHour);
        state = State::minutes;
        if (failure == nullptr && m_p == m_end) state = State::done;
        if (failure == nullptr && m_p != m_end && *m_p == ':') {
          m_separator = ':';
          ++m_p;
        }
        break;
      case State::minutes:
        failure = read_field(59, kMinute);
        state = State::seconds;
        if (failure == nullptr && m_separator != 0) {
          if (m_p == m_end) {
            state = State::done;
          } else if (*m_p == m_separator) {
            ++m_p;
          } else if (*m_p != '.' && *m_p != 'Z' && *m_p != 'z') {
            failure = kInvalidTime;  // ',' too
          }
        }
        break;
      case State::seconds:
        failure = read_field(60, kSecond);
        state = State::after_time;
        break;
      case State::fraction:
        failure = read_fraction();
        state = State::after_time;
        break;
      case State::after_time:
        if (m_p != m_end) return kInvalidTime;
        state = State::done;
        continue;
      case State::done:
        continue;
    }
    if (failure == nullptr && state != State::done) failure = common_step(&state);
    if (failure != nullptr) return failure;
  }
  return nullptr;
}

bool UtcParser::is_infinite_reading(AbsoluteTime::Components const& date) const {
  AbsoluteTime::Components const& infinite = AbsoluteTime::Components::infinite;
  uint64_t const time = infinite.hour() * kHour + infinite.minute() * kMinute +
                        infinite.second() * kSecond + infinite.nanosecond();
  return date.year() == infinite.year() && date.month() == infinite.month() &&
         date.day() == infinite.day() && m_total == time;
}

ErrorInfo::Ptr UtcParser::parse(AbsoluteTime* out) {
  size_t const size = static_cast<size_t>(m_end - m_text);
  if (size < 13) {
    if (string_equal_nocase_ascii(m_text, size, "##INFINITE##", 12) ||
        string_equal_nocase_ascii(m_text, size, "INF", 3)) {
      if (out != nullptr) *out = AbsoluteTime::infinite;
      return nullptr;
    }
    return fail("Invalid UTC time string: \"{@utcTime}\"");
  }
  AbsoluteTime::Components components;
  if (!read_date(&components)) return fail("Invalid date in UTC time string: \"{@utcTime}\"");
  if (m_p == m_end || (*m_p != ' ' && *m_p != 'T' && *m_p != 't')) {
    return fail(
        "Invalid date/time separator in UTC time string.  Expecting ' ' or 'T': \"{@utcTime}\"");
  }
  ++m_p;
  if (!read_common_time()) {
    if (char const* failure = run_time_machine()) return fail(failure);
  }
  if (m_total > 86400000000000ULL) {
    return fail(
        "Invalid time in UTC time string.  Time must be 00:00:00...24:00:00 (inclusive). "
        "\"{@utcTime}\"");
  }
  if (is_infinite_reading(components)) {  // the ISO writer's infinity reads back as infinity
    if (out != nullptr) *out = AbsoluteTime::infinite;
    return nullptr;
  }
  ErrorInfo::Ptr error =
      impl::time_from_date(components, static_cast<long long>(m_total), out);  // 24:00 adds a day
  if (!error) return nullptr;
  if (error->matches(error::tqcore_absoluteTime_range)) {
    return fail("Components of UTC date/time string exceeds date range: \"{@utcTime}\"", error);
  }
  return fail("Invalid UTC date/time string: \"{@utcTime}\"", error);
}

}  // namespace

std::string AbsoluteTime::as_string() const {
  if (is_infinite()) return "##INFINITE##";
  return written(*this, ' ', false);
}

std::string AbsoluteTime::as_iso8601_string() const {
  if (is_infinite()) return "9999-12-31T23:59:59.999999999Z";
  return written(*this, 'T', true);
}

ErrorInfo::Ptr AbsoluteTime::from_string_nothrow(char const* text, size_t size, AbsoluteTime* out) {
  return UtcParser(text != nullptr ? text : "", text != nullptr ? size : 0).parse(out);
}

AbsoluteTime AbsoluteTime::from_string(char const* text, size_t size) {
  AbsoluteTime result;
  ErrorException::throw_if_error(from_string_nothrow(text, size, &result));
  return result;
}

std::ostream& operator<<(std::ostream& stream, AbsoluteTime const& time) {
  return stream << time.as_string();
}

}  // namespace tqcore
