// Durations: the human and the ISO 8601 text forms of RelativeTime, written and read.
#include <tqcore/abs_rel_time.h>
#include <tqcore/error_builder.h>
#include <tqcore/error_exception.h>
#include <tqcore/string_util.h>

#include <cstdio>
#include <ostream>
#include <string>

#include "abs_rel_time_internal.h"
#include "file_ids.h"

namespace tqcore {
namespace {

char const kFileId[] = TQCORE_FILE_ID("abs_rel_time");
constexpr uint64_t kAllOnes = ~uint64_t{0};
constexpr uint64_t kSignedMax = 0x7FFFFFFFFFFFFFFFULL;

// The failures of both parsers: the whole text, and the length or the position of the fault.
ErrorInfo::Ptr time_string_error(char const* message, std::string const& text, char const* name,
                                 size_t number, char const* function) {
  return ErrorComposer(message)
      .param(SourceString::create_reference("timeString"), text)
      .param(SourceString::create_reference(name), std::to_string(number))
      .create(error::tqcore_relativeTime_invalidTimeString,
              SourceLocation(function, kFileId, __LINE__));
}

ErrorInfo::Ptr field_error(char const* message, std::string const& text) {
  return time_string_error(message, text, "length", text.size(),
                           "tqcore::RelativeTime::field_from_string()");
}

ErrorInfo::Ptr iso_error(char const* message, std::string const& text, char const* at) {
  return time_string_error(message, text, "stringPos", static_cast<size_t>(at - text.data()),
                           "tqcore::RelativeTime::parse_iso8601_duration()");
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// The size of an ISO unit letter in nanoseconds (0 for a zero year or month, which add
// nothing), or the failure message for the letter at its place.
char const* iso_unit(char letter, bool t_seen, bool nonzero, uint64_t* size) {
  static char const ambiguous[] =
      "Units Y(year) and M(onth) are not supported because they are ambiguous without a "
      "reference date (position {@stringPos}): \"{@timeString}\"";
  switch (letter | 0x20) {
    case 'y':
      if (t_seen) {
        return "Unit Y(year) not supported after the 'T' separator (position {@stringPos}): "
               "\"{@timeString}\"";
      }
      return nonzero ? ambiguous : nullptr;
    case 'm':  // months before the 'T', minutes after it
      if (t_seen) *size = 60000000000ULL;
      return !t_seen && nonzero ? ambiguous : nullptr;
    case 'w':
      *size = 604800000000000ULL;
      return t_seen ? "Unit W(eeks) not supported after the 'T' separator (position "
                      "{@stringPos}): \"{@timeString}\""
                    : nullptr;
    case 'd':
      *size = 86400000000000ULL;
      return t_seen ? "Unit D(ays) not supported after the 'T' separator (position "
                      "{@stringPos}): \"{@timeString}\""
                    : nullptr;
    case 'h':
      *size = 3600000000000ULL;
      return t_seen ? nullptr
                    : "Unit H(ours) not supported before the 'T' separator (position "
                      "{@stringPos}): \"{@timeString}\"";
    case 's':  // seconds need no 'T', by decision
      *size = 1000000000ULL;
      return nullptr;
    default:
      return is_digit(letter) ? "Value of time segment exceeds 2^63-1 at position {@stringPos}: "
                                "\"{@timeString}\""
                              : "Unexpected time unit at position {@stringPos}: \"{@timeString}\"";
  }
}

char const kSyntax[] = "Syntax error processing time string \"{@timeString}\", length={@length}";
char const kOverflow[] =
    "Value overflow processing time string \"{@timeString}\", length={@length}";

}  // namespace

// ---- Writers ---------------------------------------------------------------------------------

std::string RelativeTime::as_string() const {
  if (is_infinite()) return "##INFINITE##";
  bool const negative = m_value < 0;
  uint64_t const magnitude =
      negative ? 0 - static_cast<uint64_t>(m_value) : static_cast<uint64_t>(m_value);
  unsigned long long const seconds = magnitude / 1000000000;
  unsigned long long const ns = magnitude % 1000000000;
  impl::TimeText text;
  if (negative) text.put('-');
  if (seconds == 0 && ns <= 1000) return text.number(ns).put("ns").str();
  // The whole part, then the fraction in the unit's digits; at least one of them stays.
  char const* suffix = "s";
  uint32_t fraction = static_cast<uint32_t>(ns);
  int fraction_digits = 9;
  if (seconds == 0 && ns <= 1000000) {
    text.number(ns / 1000);
    fraction = static_cast<uint32_t>(ns % 1000);
    fraction_digits = 3;
    suffix = "us";
  } else if (seconds == 0) {
    text.number(ns / 1000000);
    fraction = static_cast<uint32_t>(ns % 1000000);
    fraction_digits = 6;
    suffix = "ms";
  } else {
    if (seconds > 86400) text.number(seconds / 86400).put("d ");
    if (seconds > 3600) {
      text.number(seconds > 86400 ? seconds / 3600 % 24 : seconds / 3600).put("h ");
      text.number(seconds / 60 % 60).put("m ").number(seconds % 60);
    } else if (seconds > 60) {
      text.number(seconds / 60).put("m ").digits(static_cast<uint32_t>(seconds % 60), 2);
    } else {
      text.number(seconds);
    }
  }
  size_t const point = text.size();
  text.put('.').digits(fraction, fraction_digits).trim_zeros(point + 2);
  return text.put(suffix).str();
}

std::string RelativeTime::as_iso8601_string() const {
  if (is_infinite()) return "P999999DT23H59M59.999999999S";
  if (m_value == 0) return "PT0S";
  bool const negative = m_value < 0;
  uint64_t const magnitude =
      negative ? 0 - static_cast<uint64_t>(m_value) : static_cast<uint64_t>(m_value);
  unsigned long long seconds = magnitude / 1000000000;
  unsigned long long const ns = magnitude % 1000000000;
  impl::TimeText text;
  text.put(negative ? "-P" : "P");
  if (seconds >= 86400) text.number(seconds / 86400).put('D');
  seconds %= 86400;
  if (seconds == 0 && ns == 0) return text.str();
  text.put('T');
  if (seconds >= 3600) text.number(seconds / 3600).put('H');
  if (seconds % 3600 >= 60) text.number(seconds % 3600 / 60).put('M');
  seconds %= 60;
  if (seconds != 0 || ns != 0) {
    text.number(seconds);
    if (ns != 0) {
      size_t const point = text.size();
      text.put('.').digits(static_cast<uint32_t>(ns), 9).trim_zeros(point + 1);
    }
    text.put('S');
  }
  return text.str();
}

std::ostream& operator<<(std::ostream& stream, RelativeTime const& time) {
  return stream << time.as_string();
}

// ---- The human form --------------------------------------------------------------------------

ErrorInfo::Ptr RelativeTime::field_from_string(std::string const& text, char const*& position,
                                               long long& value) {
  value = 0;
  char const* const end = text.data() + text.size();
  while (position != end && *position == ' ') ++position;
  if (position == end) return nullptr;
  uint64_t whole = 0;
  uint64_t fraction = 0;  // units of 10^-11
  uint64_t weight = 100000000000ULL;
  bool point = false;
  for (;; ++position) {
    if (position == end) return nullptr;  // a number without a unit counts nothing
    char const c = *position;
    if (c == ' ') return field_error(kSyntax, text);
    if (is_digit(c)) {
      uint64_t& target = point ? fraction : whole;
      if (target > 0xCCCCCCCCCCCCCCBULL) return field_error(kOverflow, text);
      if (point) {
        weight /= 10;
        fraction += static_cast<uint64_t>(c - '0') * weight;
      } else {
        whole = whole * 10 + static_cast<uint64_t>(c - '0');
      }
    } else if (c == '.') {
      if (point) return field_error(kSyntax, text);
      point = true;
    } else {
      break;
    }
  }
  // The unit: each limit on `whole` is tested before the one multiplication.
  auto store = [&](uint64_t result, size_t letters) -> ErrorInfo::Ptr {
    value = static_cast<long long>(result);
    position += letters;
    return nullptr;
  };
  switch (*position) {
    case 'd':
      if (whole >= 106752) return field_error(kOverflow, text);
      return store((whole * 100000000000ULL + fraction) * 864, 1);
    case 'h':
      if (whole >= 2562048) return field_error(kOverflow, text);
      return store((whole * 100000000000ULL + fraction) * 36, 1);
    case 's':
      if (whole >= 9223372037ULL) return field_error(kOverflow, text);
      return store(whole * 1000000000ULL + fraction / 100, 1);
    case 'm': {
      char const* next = position + 1;
      if (next != end && *next == 's') {
        if (whole >= 9223372036855ULL) return field_error(kOverflow, text);
        return store(whole * 1000000ULL + fraction / 100000, 2);
      }
      if (next != end && !is_digit(*next) && *next != ' ') return field_error(kSyntax, text);
      if (whole >= 153722868) return field_error(kOverflow, text);
      return store(whole * 60000000000ULL + fraction * 6 / 10, 1);
    }
    case 'n':
    case 'u': {
      char const* next = position + 1;
      if (next == end) {
        return field_error(
            "Unexpected end of string in time string \"{@timeString}\", length={@length}", text);
      }
      if (*next != 's') {
        return field_error("Invalid field type in time string \"{@timeString}\", length={@length}",
                           text);
      }
      if (*position == 'n') return store(whole, 2);
      if (whole >= 9223372036854776ULL) return field_error(kOverflow, text);
      return store(whole * 1000ULL + fraction / 100000000, 2);
    }
    default:
      return field_error("Invalid value in time string \"{@timeString}\", length={@length}", text);
  }
}

// ---- The ISO 8601 form -----------------------------------------------------------------------

void RelativeTime::add_time_value_of_unit(unsigned long long& total, unsigned long long unit,
                                          unsigned long long whole, unsigned long long numerator,
                                          unsigned long long denominator) {
  unsigned long long const limit = kAllOnes / unit;
  if (whole > limit) {
    total = kAllOnes;
    return;
  }
  unsigned long long const product = unit * whole;
  if (product >= ~total) {
    total = kAllOnes;
    return;
  }
  total += product;
  if (numerator == 0) return;
  // The fraction of the unit, exact and rounded to nearest: the product and the rounding term
  // need up to 128 bits.
  auto const part = static_cast<unsigned long long>(
      (static_cast<unsigned __int128>(unit) * numerator + denominator / 2) / denominator);
  total = part >= ~total ? kAllOnes : total + part;
}

ErrorInfo::Ptr RelativeTime::parse_iso8601_duration(std::string const& text, char const* position,
                                                    unsigned long long& value) {
  value = 0;
  char const* const end = text.data() + text.size();
  if (position == end) {
    return iso_error("Expecting time value after 'P' at position {@stringPos}: \"{@timeString}\"",
                     text, position);
  }
  bool t_seen = false;
  while (true) {
    // A number: whole digits while they fit in 63 bits, then an optional fraction.
    unsigned long long whole = 0;
    unsigned long long numerator = 0;
    unsigned long long denominator = 1;
    bool read = false;
    for (; position != end && is_digit(*position); ++position) {
      unsigned long long const next = whole * 10 + static_cast<unsigned>(*position - '0');
      if (whole > kSignedMax / 10 || next > kSignedMax) break;  // left on the overflowing digit
      whole = next;
      read = true;
    }
    if (position != end && (*position == '.' || *position == ',')) {
      ++position;
      read = true;
      for (int digits = 0; digits < 18 && position != end && is_digit(*position); ++digits) {
        numerator = numerator * 10 + static_cast<unsigned>(*position++ - '0');
        denominator *= 10;
      }
      if (position != end && is_digit(*position)) {
        if (*position >= '5') ++numerator;
        while (position != end && is_digit(*position)) ++position;
      }
    }
    if (!read) {
      if (position == end || (*position != 'T' && *position != 't')) {
        return iso_error("Expecting digits or 'T' (position {@stringPos}): \"{@timeString}\"", text,
                         position);
      }
      if (t_seen) {
        return iso_error(
            "Only one 'T' separator allowed (position {@stringPos}): \"{@timeString}\"", text,
            position);
      }
      t_seen = true;
    } else {
      if (position == end) {
        return iso_error(
            "Expecting unit after time value digits (position {@stringPos}): \"{@timeString}\"",
            text, position);
      }
      uint64_t unit = 0;
      if (char const* failure = iso_unit(*position, t_seen, whole != 0 || numerator != 0, &unit)) {
        return iso_error(failure, text, position);
      }
      if (unit != 0) add_time_value_of_unit(value, unit, whole, numerator, denominator);
    }
    if (++position == end) return nullptr;
  }
}

// ---- Either form -----------------------------------------------------------------------------

ErrorInfo::Ptr RelativeTime::from_string_nothrow(std::string const& text, RelativeTime* out) {
  if (text.size() < 13 &&
      (string_equal_nocase_ascii(text.data(), text.size(), "##INFINITE##", 12) ||
       string_equal_nocase_ascii(text.data(), text.size(), "INF", 3))) {
    *out = infinite;
    return nullptr;
  }
  char const* position = text.data();
  char const* const end = position + text.size();
  bool const negative = position != end && *position == '-';
  if (negative) ++position;
  unsigned long long total = 0;
  ErrorInfo::Ptr result;
  if (position != end && (*position == 'P' || *position == 'p')) {
    result = parse_iso8601_duration(text, position + 1, total);
  } else {
    while (position != end) {
      long long field = 0;
      if (ErrorInfo::Ptr error = field_from_string(text, position, field)) return error;
      uint64_t const magnitude = static_cast<uint64_t>(field);
      total = magnitude < ~total ? total + magnitude : kAllOnes;
    }
  }
  if (!negative) {
    out->m_value = total > kSignedMax ? TIMEVALUE_INFINITE : static_cast<long long>(total);
  } else if (total > 0x8000000000000000ULL) {
    out->m_value = TIMEVALUE_INFINITE;  // the sign is lost in saturation
  } else {
    out->m_value = static_cast<long long>(0 - total);
  }
  return result;
}

RelativeTime RelativeTime::from_string(std::string const& text) {
  RelativeTime result;
  ErrorException::throw_if_error(from_string_nothrow(text, &result));
  return result;
}

}  // namespace tqcore
