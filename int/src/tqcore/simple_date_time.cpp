#include <tqcore/error_builder.h>
#include <tqcore/error_exception.h>
#include <tqcore/simple_date_time.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ostream>

#include "abs_rel_time_internal.h"
#include "file_ids.h"

namespace tqcore {
namespace {

char const kFileId[] = TQCORE_FILE_ID("simple_date_time");
constexpr int kHalfDay = 720;
constexpr int kDay = 1440;

ErrorInfo::Ptr invalid(char const* message, char const* text, size_t size,
                       ErrorInfo::Ptr cause = nullptr) {
  return ErrorComposer(message)
      .param(SourceString::create_reference("dateTime"), std::string_view(text, size))
      .create(error::tqcore_simpleDateTime_invalidString,
              SourceLocation("tqcore::SimpleDateTime::from_string_nothrow()", kFileId, __LINE__),
              std::move(cause));
}

bool two_digits(char const* p, int* value) {
  if (!std::isdigit(static_cast<unsigned char>(p[0])) ||
      !std::isdigit(static_cast<unsigned char>(p[1]))) {
    return false;
  }
  *value = (p[0] - '0') * 10 + (p[1] - '0');
  return true;
}

}  // namespace

namespace {

// Whole days of an offset beyond half a day move into the base, so that the local time stays;
// the rest is the offset, -720 to 720. A base that would leave the finite range is a range
// failure (never the infinite pattern with an offset).
ErrorInfo::Ptr normalised(AbsoluteTime const& base, int minutes, AbsoluteTime* base_out,
                          int* minutes_out) {
  *base_out = base;
  *minutes_out = minutes;
  if (base.is_infinite() || (minutes >= -kHalfDay && minutes <= kHalfDay)) return nullptr;
  long long const wide = minutes;  // wide: minutes near INT_MIN or INT_MAX must not overflow
  long long const days = wide > kHalfDay ? (wide + kHalfDay) / kDay : -((kHalfDay - wide) / kDay);
  long long shift, shifted;
  if (__builtin_mul_overflow(days, 86400000000000LL, &shift) ||
      __builtin_add_overflow(base.as_nsec(), shift, &shifted) ||
      shifted > impl::TimeBase::TIMEVALUE_MAX) {
    return impl::time_range_error(days > 0, __LINE__);
  }
  *base_out = AbsoluteTime::from_nsec(shifted);
  *minutes_out = static_cast<int>(wide - days * kDay);
  return nullptr;
}

}  // namespace

void SimpleDateTime::set(AbsoluteTime const& base, int minutes) {
  if (base.is_infinite() && minutes != 0) {
    ErrorComposer("Timezone offset must be 0 if base-UTC time is infinite")
        .param(SourceString::create_reference("timezoneOffset"), std::to_string(minutes))
        .throw_error(error::tqcore_simpleDateTime_timezoneOffset,
                     SourceLocation("tqcore::SimpleDateTime::set()", kFileId, __LINE__));
  }
  AbsoluteTime new_base;
  int new_offset;
  ErrorException::throw_if_error(normalised(base, minutes, &new_base, &new_offset));
  m_base = new_base;
  m_offset = new_offset;
}

void SimpleDateTime::set(AbsoluteTime const& base, RelativeTime const& offset) {
  if (offset.is_infinite()) {
    throw_error(error::tqcore_simpleDateTime_timezoneOffset,
                "An infinite timezoneOffset is not valid",
                SourceLocation("tqcore::SimpleDateTime::set()", kFileId, __LINE__));
  }
  set(base, static_cast<int>(offset.as_nsec() / 60000000000LL));  // seconds are dropped
}

std::string SimpleDateTime::as_string() const {
  std::string text = m_base.as_string();
  if (m_offset != 0) {
    unsigned const magnitude = static_cast<unsigned>(m_offset < 0 ? -m_offset : m_offset);
    char zone[16];
    std::snprintf(zone, sizeof(zone), m_offset > 0 ? "+%02u:%02u" : "-%02u:%02u", magnitude / 60,
                  magnitude % 60);
    text += zone;
  } else if (!m_base.is_infinite()) {
    text += 'Z';
  }
  return text;
}

ErrorInfo::Ptr SimpleDateTime::from_string_nothrow(char const* text, size_t size,
                                                   SimpleDateTime* out) {
  if (text == nullptr) size = 0;
  char const* marker = nullptr;
  for (size_t i = size; i-- > 0;) {
    if (std::strchr("Zz+- Tt", text[i]) != nullptr && text[i] != '\0') {
      marker = text + i;
      break;
    }
  }
  bool const zone = marker != nullptr && *marker != ' ' && *marker != 'T' && *marker != 't';
  size_t const base_size = zone ? static_cast<size_t>(marker - text) : size;
  AbsoluteTime base;
  if (ErrorInfo::Ptr error = AbsoluteTime::from_string_nothrow(text, base_size, &base)) {
    return invalid(
        "Parsing UTC base of simple date/time failed (must be ISO8601).  Argument: \"{@dateTime}\"",
        text, size, error);
  }
  int offset = 0;
  if (zone && (*marker == 'Z' || *marker == 'z')) {
    if (marker != text + size - 1) {
      return invalid(
          "Invalid timezone offset in date/time string (nothing allowed after 'Z' designator): "
          "\"{@dateTime}\"",
          text, size);
    }
  } else if (zone) {
    size_t const length = static_cast<size_t>(text + size - marker);
    int hours = 0;
    int minutes = 0;
    bool const good =
        (length == 3 && two_digits(marker + 1, &hours)) ||
        (length == 5 && two_digits(marker + 1, &hours) && two_digits(marker + 3, &minutes)) ||
        (length == 6 && two_digits(marker + 1, &hours) && marker[3] == ':' &&
         two_digits(marker + 4, &minutes));
    if (!good) {
      return invalid(
          "Invalid timezone offset in date/time string (must be hh:mm, hhmm, or hh): "
          "\"{@dateTime}\"",
          text, size);
    }
    if (minutes > 59)
      return invalid("Minutes in timezone must be 0...59: \"{@dateTime}\"", text, size);
    offset = (hours * 60 + minutes) * (*marker == '-' ? -1 : 1);
  }
  AbsoluteTime normal_base;
  int normal_offset;
  if (ErrorInfo::Ptr range = normalised(base, offset, &normal_base, &normal_offset)) {
    return invalid("Components of UTC date/time string exceeds date range: \"{@dateTime}\"", text,
                   size, range);
  }
  // An infinite base with an offset raises here: a known property of this function.
  if (out != nullptr) out->set(base, offset);
  return nullptr;
}

SimpleDateTime SimpleDateTime::from_string(char const* text, size_t size) {
  SimpleDateTime result;
  ErrorException::throw_if_error(from_string_nothrow(text, size, &result));
  return result;
}

std::ostream& operator<<(std::ostream& stream, SimpleDateTime const& value) {
  return stream << value.as_string();
}

}  // namespace tqcore
