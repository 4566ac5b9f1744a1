// Numbers from text against the C library: doubles bit for bit as strtod reads them, floats as
// its result narrowed (refused exactly when strtod stops short, or a float overflows), integers of
// every width in every radix as std::from_chars reads the digits after the sign and prefix the
// grammar allows.
#include <tqcore/string_to.h>

#include "fuzz_support.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>

namespace {

// A float is read as a double and narrowed; beyond the float range it is refused. A number
// text of 128 characters or more is refused before it is read.
template <class T>
void check_floating(std::string const& text, unsigned int /*radix*/) {
  char* end = nullptr;
  double const read = std::strtod(text.c_str(), &end);
  bool const accepted =
      text.size() < 128 && end == text.c_str() + text.size() &&
      (sizeof(T) == sizeof(double) || std::isnan(read) || std::fabs(read) <= 3.4028234663852886e38);
  T const expected = static_cast<T>(read);
  tqcore::ErrorInfo::Ptr error;
  T const got = tqcore::string_to<T>(text.data(), text.size(), &error);
  FUZZ_CHECK(!error == accepted, text);
  FUZZ_CHECK(!accepted || std::memcmp(&got, &expected, sizeof(T)) == 0, text);
}

// The grammar: [+|-] [0x|0X (radix 16) | 0b|0B (radix 2)] digit {digit}, '-' only for signed
// types, nothing before or after. False where the text is not a T.
template <class T>
bool reference_integer(std::string const& text, unsigned int radix, T& value) {
  if (radix < 2 || radix > 36) return false;
  size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  if (negative && std::is_unsigned<T>::value) return false;
  bool const has_prefix = (radix == 16 || radix == 2) && text.size() - i > 2 && text[i] == '0' &&
                          (text[i + 1] | 0x20) == (radix == 16 ? 'x' : 'b');
  if (has_prefix) i += 2;
  char const* const first = text.data() + i;
  char const* const last = text.data() + text.size();
  if (first == last || *first == '-' || *first == '+') return false;
  unsigned long long magnitude = 0;
  auto const read = std::from_chars(first, last, magnitude, static_cast<int>(radix));
  if (read.ec != std::errc() || read.ptr != last) return false;
  using Wide = __int128;
  Wide const signed_value = negative ? -static_cast<Wide>(magnitude) : static_cast<Wide>(magnitude);
  if (signed_value < static_cast<Wide>(std::numeric_limits<T>::min()) ||
      signed_value > static_cast<Wide>(std::numeric_limits<T>::max())) {
    return false;
  }
  value = static_cast<T>(signed_value);
  return true;
}

template <class T>
void check_integer(std::string const& text, unsigned int radix) {
  T expected = 0;
  bool const accepted = reference_integer(text, radix, expected);
  tqcore::ErrorInfo::Ptr error;
  T const got = tqcore::string_to<T>(text.data(), text.size(), radix, &error);
  FUZZ_CHECK(!error == accepted, text);
  FUZZ_CHECK(!accepted || got == expected, text);
  if (radix == 10) {
    tqcore::ErrorInfo::Ptr decimal_error;
    T const decimal = tqcore::string_to<T>(text.data(), text.size(), &decimal_error);
    FUZZ_CHECK(!decimal_error == accepted && (!accepted || decimal == expected), text);
  }
}

using Check = void (*)(std::string const& text, unsigned int radix);
Check const kChecks[] = {
    check_floating<double>,     check_floating<float>,
    check_integer<signed char>, check_integer<unsigned char>,
    check_integer<short>,       check_integer<unsigned short>,
    check_integer<int>,         check_integer<unsigned int>,
    check_integer<long long>,   check_integer<unsigned long long>,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  tqcore_fuzz::Input input(data, size);
  uint8_t const kind = input.byte();
  // Radix 2 to 36, decimal the most often; 0, 1 and 37 are refused arguments.
  uint8_t const choice = input.byte();
  unsigned int const radix = choice < 64 ? 10u : choice < 250 ? 2u + choice % 35u : choice % 38u;
  std::string const text = input.rest();
  kChecks[kind % (sizeof(kChecks) / sizeof(kChecks[0]))](text, radix);
  return 0;
}
