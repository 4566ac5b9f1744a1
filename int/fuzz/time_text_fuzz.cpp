// The time readers on any text: an accepted value reads back the same from each of its own
// text forms (a date-time keeps its base and its offset, not only its local time), a character
// that cannot continue a text is never taken, and an ISO duration made of fields reads as its
// exact value.
#include <tqcore/abs_rel_time.h>
#include <tqcore/error_exception.h>
#include <tqcore/simple_date_time.h>

#include "fuzz_support.h"

#include <cctype>
#include <string>

namespace {

using tqcore::AbsoluteTime;
using tqcore::RelativeTime;
using tqcore::SimpleDateTime;

bool reads(std::string const& text, AbsoluteTime* out) {
  return !AbsoluteTime::from_string_nothrow(text, out);
}
bool reads(std::string const& text, RelativeTime* out) {
  return !RelativeTime::from_string_nothrow(text, out);
}
// The one raise of this reader: an infinite base with an offset.
bool reads(std::string const& text, SimpleDateTime* out) {
  try {
    return !SimpleDateTime::from_string_nothrow(text.data(), text.size(), out);
  } catch (tqcore::ErrorException const& e) {
    std::string lower = text;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    FUZZ_CHECK(e.error()->matches("error.tqcore.simpleDateTime.timezoneOffset") &&
                   lower.find("inf") != std::string::npos,
               text);
    return false;
  }
}

template <class T>
void check_reads_back(std::string const& text, std::string const& form, T const& value) {
  T again;
  FUZZ_CHECK(reads(form, &again), text + " -> " + form);
  FUZZ_CHECK(again.as_nsec() == value.as_nsec(), text + " -> " + form);
}

// Reads `text` into `value`; an accepted text must stop being accepted with a '#' after it.
template <class T>
bool reads_whole(std::string const& text, T* value) {
  if (!reads(text, value)) return false;
  T ignored;
  FUZZ_CHECK(!reads(text + "#", &ignored), text);
  return true;
}

void check_absolute(std::string const& text) {
  AbsoluteTime value;
  if (!reads_whole(text, &value)) return;
  check_reads_back(text, value.as_string(), value);
  if (!value.is_infinite()) check_reads_back(text, value.as_iso8601_string(), value);
}

void check_relative(std::string const& text) {
  RelativeTime value;
  if (!reads_whole(text, &value)) return;
  check_reads_back(text, value.as_string(), value);
  if (!value.is_infinite()) check_reads_back(text, value.as_iso8601_string(), value);
}

void check_date_time(std::string const& text) {
  SimpleDateTime value;
  if (!reads_whole(text, &value)) return;
  std::string const form = value.as_string();
  SimpleDateTime again;
  FUZZ_CHECK(reads(form, &again), text + " -> " + form);
  FUZZ_CHECK(again.base_time_utc() == value.base_time_utc(), text + " -> " + form);
  FUZZ_CHECK(again.timezone_offset() == value.timezone_offset(), text + " -> " + form);
}

// "P<d>DT<h>H<m>M<s>.<fraction>S" with fields from the input; a zero field may be left out.
void check_iso_fields(tqcore_fuzz::Input& input) {
  long long const days = input.integral<uint32_t>() % 100000;
  long long const hours = input.byte() % 24;
  long long const minutes = input.byte() % 60;
  long long const seconds = input.byte() % 60;
  unsigned const digits = input.byte() % 10;
  unsigned const omit = input.byte();
  std::string fraction;
  long long fraction_ns = 0;
  for (unsigned k = 0; k < 9; ++k) {
    unsigned const digit = k < digits ? input.byte() % 10 : 0;
    if (k < digits) fraction += static_cast<char>('0' + digit);
    fraction_ns = fraction_ns * 10 + digit;
  }
  std::string text = "P";
  if (days != 0 || (omit & 1) == 0) text += std::to_string(days) + "D";
  text += "T";
  if (hours != 0 || (omit & 2) == 0) text += std::to_string(hours) + "H";
  if (minutes != 0 || (omit & 4) == 0) text += std::to_string(minutes) + "M";
  text += std::to_string(seconds) + (digits > 0 ? "." + fraction : "") + "S";
  long long const expected =
      (((days * 24 + hours) * 60 + minutes) * 60 + seconds) * 1000000000LL + fraction_ns;
  RelativeTime value;
  FUZZ_CHECK(reads(text, &value) && value.as_nsec() == expected, text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  tqcore_fuzz::Input input(data, size);
  uint8_t const which = input.byte();
  if (which % 4 == 3) {
    check_iso_fields(input);
    return 0;
  }
  std::string const text = input.rest();
  switch (which % 4) {
    case 0:
      check_absolute(text);
      break;
    case 1:
      check_relative(text);
      break;
    default:
      check_date_time(text);
      break;
  }
  return 0;
}
