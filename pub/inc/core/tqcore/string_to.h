/// @file
/// Values to text (to_string, to_wstring) and text to values (string_to<T>).
///
/// A narrow string is UTF-8; a wide string holds one character per wchar_t. Text-to-value
/// functions take a last argument `RefCountPtr<ErrorInfo const>* error`: null raises on failure,
/// otherwise the record is stored there and a fallback value returned. Every failure has the code
/// "error.tqcore.string.extraction".
///
/// Integers are read in any radix from 2 to 36 by this grammar, with nothing before or after:
///   [+|-] [0x|0X  (radix 16 only) | 0b|0B  (radix 2 only)] digit {digit}
/// Digits above 9 are letters in either case. '-' is refused for unsigned types, whitespace
/// everywhere, and an empty text or one with no digit fails.
///
/// Failures: `string_to<T>` has the three shapes: "error.tqcore.string.extraction" for text that is
/// not a T or does not fit, with the text as a parameter; `to_string` raises only std::bad_alloc.
///
/// @code
/// int const port = tqcore::string_to<int>(std::string_view("8080"));  // raises on "80x0"
/// unsigned const mask = tqcore::string_to<unsigned>("ff", 2, 16);      // any radix 2..36
/// tqcore::ErrorInfo::Ptr error;
/// double const ratio = tqcore::string_to<double>("1.5x", 4, &error);   // NaN, and the record
/// std::string const text = tqcore::to_string(port);  // "8080"
/// @endcode
#pragma once

#include <tqcore/error_info.h>
#include <tqcore/tqcore_export.h>

#include <algorithm>
#if __has_include(<charconv>)
#include <charconv>
#endif
#include <cmath>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>

namespace tqcore {

TQCORE_EXPORT std::string to_string(bool value);
TQCORE_EXPORT std::string to_string(char value);  ///< a number, not a character
TQCORE_EXPORT std::string to_string(short value);
TQCORE_EXPORT std::string to_string(int value);
TQCORE_EXPORT std::string to_string(long value);
TQCORE_EXPORT std::string to_string(long long value);
TQCORE_EXPORT std::string to_string(unsigned char value);
TQCORE_EXPORT std::string to_string(unsigned short value);
TQCORE_EXPORT std::string to_string(unsigned int value);
TQCORE_EXPORT std::string to_string(unsigned long value);
TQCORE_EXPORT std::string to_string(unsigned long long value);
TQCORE_EXPORT std::string to_string(std::string const& text);
TQCORE_EXPORT std::string to_string(std::wstring const& text);
TQCORE_EXPORT std::string to_string(char const* text);
TQCORE_EXPORT std::string to_string(char const* text, size_t size);
TQCORE_EXPORT std::string to_string(wchar_t const* text);
TQCORE_EXPORT std::string to_string(wchar_t const* text, size_t size);
TQCORE_EXPORT std::string to_string(wchar_t const* text, size_t size, char replacement,
                                    int* first_invalid);
TQCORE_EXPORT std::string to_string(std::wstring const& text, char replacement, int* first_invalid);

TQCORE_EXPORT std::wstring to_wstring(bool value);
TQCORE_EXPORT std::wstring to_wstring(char value);
TQCORE_EXPORT std::wstring to_wstring(short value);
TQCORE_EXPORT std::wstring to_wstring(int value);
TQCORE_EXPORT std::wstring to_wstring(long value);
TQCORE_EXPORT std::wstring to_wstring(long long value);
TQCORE_EXPORT std::wstring to_wstring(unsigned char value);
TQCORE_EXPORT std::wstring to_wstring(unsigned short value);
TQCORE_EXPORT std::wstring to_wstring(unsigned int value);
TQCORE_EXPORT std::wstring to_wstring(unsigned long value);
TQCORE_EXPORT std::wstring to_wstring(unsigned long long value);
TQCORE_EXPORT std::wstring to_wstring(std::string const& text);
TQCORE_EXPORT std::wstring to_wstring(std::wstring const& text);
TQCORE_EXPORT std::wstring to_wstring(char const* text);
TQCORE_EXPORT std::wstring to_wstring(char const* text, size_t size);
TQCORE_EXPORT std::wstring to_wstring(wchar_t const* text);
TQCORE_EXPORT std::wstring to_wstring(wchar_t const* text, size_t size);
TQCORE_EXPORT std::wstring to_wstring(char const* text, size_t size, wchar_t replacement,
                                      int* first_invalid);
TQCORE_EXPORT std::wstring to_wstring(std::string const& text, wchar_t replacement,
                                      int* first_invalid);

namespace impl {

TQCORE_EXPORT bool string_to_bool(char const* text, size_t size, ErrorInfo::Ptr* error);
TQCORE_EXPORT bool string_to_bool(wchar_t const* text, size_t size, ErrorInfo::Ptr* error);
/// strtod's result exactly, in the "C" locale; texts of 128 characters or more fail.
TQCORE_EXPORT double string_to_double(char const* text, size_t size, ErrorInfo::Ptr* error);
constexpr size_t kLongestDoubleText = 127;
TQCORE_EXPORT double string_to_double(wchar_t const* text, size_t size, ErrorInfo::Ptr* error);
TQCORE_EXPORT float string_to_float(char const* text, size_t size, ErrorInfo::Ptr* error);
TQCORE_EXPORT float string_to_float(wchar_t const* text, size_t size, ErrorInfo::Ptr* error);

TQCORE_EXPORT void string_to_failure(char const* text, size_t size, std::type_info const& type,
                                     ErrorInfo::Ptr* error);
TQCORE_EXPORT void string_to_failure(wchar_t const* text, size_t size, std::type_info const& type,
                                     ErrorInfo::Ptr* error);
TQCORE_EXPORT void base_n_string_to_error_bad_arg(char const* name, size_t value,
                                                  std::type_info const& type, char const* text,
                                                  size_t size, ErrorInfo::Ptr* error);
TQCORE_EXPORT void base_n_string_to_error_bad_arg(char const* name, size_t value,
                                                  std::type_info const& type, wchar_t const* text,
                                                  size_t size, ErrorInfo::Ptr* error);
TQCORE_EXPORT void base_n_string_to_error_bad_numeral(char character, unsigned int radix,
                                                      std::type_info const& type, char const* text,
                                                      size_t size, ErrorInfo::Ptr* error);
TQCORE_EXPORT void base_n_string_to_error_bad_numeral(wchar_t character, unsigned int radix,
                                                      std::type_info const& type,
                                                      wchar_t const* text, size_t size,
                                                      ErrorInfo::Ptr* error);
TQCORE_EXPORT void base_n_string_to_error_overflow(unsigned int radix, std::type_info const& type,
                                                   char const* text, size_t size,
                                                   ErrorInfo::Ptr* error);
TQCORE_EXPORT void base_n_string_to_error_overflow(unsigned int radix, std::type_info const& type,
                                                   wchar_t const* text, size_t size,
                                                   ErrorInfo::Ptr* error);

/// The value of a numeral of any radix up to 36, or 99; a table, as mixed digits and letters
/// would mispredict range tests.
struct DigitValues {
  unsigned char values[256];
  constexpr DigitValues() : values() {
    for (unsigned int c = 0; c < 256; ++c) {
      values[c] = c - '0' < 10              ? static_cast<unsigned char>(c - '0')
                  : ((c | 0x20) - 'a') < 26 ? static_cast<unsigned char>((c | 0x20) - 'a' + 10)
                                            : 99;
    }
  }
};
inline constexpr DigitValues kDigitValues{};

inline unsigned int digit_value(unsigned int c) { return c < 256 ? kDigitValues.values[c] : 99; }

/// How many digits of each radix any value of M holds: that many need no overflow check.
template <class M>
struct SafeDigits {
  unsigned char count[37];
  constexpr SafeDigits() : count() {
    for (unsigned int radix = 2; radix <= 36; ++radix) {
      M power = 1;
      unsigned char digits = 0;
      while (power <= std::numeric_limits<M>::max() / radix) {
        power = static_cast<M>(power * radix);
        ++digits;
      }
      count[radix] = digits;
    }
  }
};

template <class M>
inline constexpr SafeDigits<M> kSafeDigits{};

/// Parses an integer by the grammar above; on failure reports and returns 0.
template <class T, class Char>
T parse_integer(Char const* text, size_t size, unsigned int radix, ErrorInfo::Ptr* error) {
  using Magnitude = std::make_unsigned_t<T>;
  if (radix < 2 || radix > 36) {
    base_n_string_to_error_bad_arg("radix", radix, typeid(T), text, size, error);
    return 0;
  }
  size_t i = 0;
  bool negative = false;
  if (i < size && (text[i] == Char('+') || text[i] == Char('-'))) {
    negative = text[i++] == Char('-');
    if (negative && !std::is_signed<T>::value) {
      base_n_string_to_error_bad_numeral(Char('-'), radix, typeid(T), text, size, error);
      return 0;
    }
  }
  if ((radix == 16 || radix == 2) && size - i > 2 && text[i] == Char('0') &&
      (text[i + 1] | 0x20) == (radix == 16 ? Char('x') : Char('b'))) {
    i += 2;
  }
  if (i == size) {
    string_to_failure(text, size, typeid(T), error);
    return 0;
  }
  // The largest magnitude the sign allows: one more for a negative signed value.
  Magnitude const limit = static_cast<Magnitude>(std::numeric_limits<T>::max()) +
                          (negative ? Magnitude(1) : Magnitude(0));
  Magnitude value = 0;
  size_t const unchecked_end = i + std::min<size_t>(size - i, kSafeDigits<Magnitude>.count[radix]);
  for (; i < unchecked_end; ++i) {
    unsigned int const digit = digit_value(static_cast<unsigned int>(text[i]));
    if (digit >= radix) {
      base_n_string_to_error_bad_numeral(text[i], radix, typeid(T), text, size, error);
      return 0;
    }
    value = static_cast<Magnitude>(value * radix + digit);
  }
  for (; i < size; ++i) {
    unsigned int const digit = digit_value(static_cast<unsigned int>(text[i]));
    if (digit >= radix) {
      base_n_string_to_error_bad_numeral(text[i], radix, typeid(T), text, size, error);
      return 0;
    }
    if (__builtin_mul_overflow(value, static_cast<Magnitude>(radix), &value) ||
        __builtin_add_overflow(value, static_cast<Magnitude>(digit), &value) || value > limit) {
      base_n_string_to_error_overflow(radix, typeid(T), text, size, error);
      return 0;
    }
  }
  if (value > limit) {
    base_n_string_to_error_overflow(radix, typeid(T), text, size, error);
    return 0;
  }
  return negative ? static_cast<T>(Magnitude(0) - value) : static_cast<T>(value);
}

template <class Char>
size_t length_of(Char const* text, size_t size) {
  if (size != static_cast<size_t>(-1)) return size;
  return std::char_traits<Char>::length(text);
}

}  // namespace impl

/// The value of `text` as a T: bool, float, double or any integer type (decimal; see also the
/// radix form). A size of all ones means up to the terminator.
template <class T, class Char>
T string_to(Char const* text, size_t size, ErrorInfo::Ptr* error = nullptr) {
  size = impl::length_of(text, size);
  if constexpr (std::is_same<T, bool>::value) {
    return impl::string_to_bool(text, size, error);
  } else if constexpr (std::is_same<T, double>::value) {
#if defined(__cpp_lib_to_chars)
    // The common case without a call: a correctly rounded from_chars that takes the whole text
    // and gives a finite value agrees with strtod; the library decides everything else.
    if constexpr (std::is_same<Char, char>::value) {
      double value = 0;
      std::from_chars_result const parsed = std::from_chars(text, text + size, value);
      if (size <= impl::kLongestDoubleText && parsed.ec == std::errc() &&
          parsed.ptr == text + size && std::isfinite(value)) {
        return value;
      }
    }
#endif
    return impl::string_to_double(text, size, error);
  } else if constexpr (std::is_same<T, float>::value) {
    return impl::string_to_float(text, size, error);
  } else {
    static_assert(std::is_integral<T>::value, "string_to reads bool, float, double or integers");
    return impl::parse_integer<T>(text, size, 10, error);
  }
}

/// An integer in a radix from 2 to 36.
template <class T, class Char>
T string_to(Char const* text, size_t size, unsigned int radix, ErrorInfo::Ptr* error = nullptr) {
  static_assert(std::is_integral<T>::value && !std::is_same<T, bool>::value,
                "a radix applies to integers");
  return impl::parse_integer<T>(text, impl::length_of(text, size), radix, error);
}

template <class T>
T string_to(std::string_view text, ErrorInfo::Ptr* error = nullptr) {
  return string_to<T>(text.data(), text.size(), error);
}

template <class T>
T string_to(std::wstring_view text, ErrorInfo::Ptr* error = nullptr) {
  return string_to<T>(text.data(), text.size(), error);
}

}  // namespace tqcore
