#include <tqcore/error_code.h>
#include <tqcore/error_exception.h>
#include <tqcore/streamers.h>
#include <tqcore/string_to.h>
#include <tqcore/string_util.h>
#include <tqcore/ucsutil.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "error_exception_internal.h"
#include "file_ids.h"

namespace tqcore {

// ---- Integers to text ------------------------------------------------------------------------

namespace {

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Writes the digits of `value` backward, ending at `end`; returns where they begin.
char* unsigned_digits(unsigned long long value, char* end) {
  while (value >= 100) {
    unsigned const pair = static_cast<unsigned>(value % 100) * 2;
    value /= 100;
    *--end = kDigitPairs[pair + 1];
    *--end = kDigitPairs[pair];
  }
  if (value >= 10) {
    *--end = kDigitPairs[value * 2 + 1];
    *--end = kDigitPairs[value * 2];
  } else {
    *--end = static_cast<char>('0' + value);
  }
  return end;
}

template <class String>
String decimal(long long value) {
  char buffer[24];
  char* const end = buffer + sizeof(buffer);
  // The magnitude as unsigned, so the smallest value needs no special case.
  unsigned long long const magnitude = value < 0 ? 0ULL - static_cast<unsigned long long>(value)
                                                 : static_cast<unsigned long long>(value);
  char* begin = unsigned_digits(magnitude, end);
  if (value < 0) *--begin = '-';
  return String(begin, end);
}

template <class String>
String decimal_unsigned(unsigned long long value) {
  char buffer[24];
  char* const end = buffer + sizeof(buffer);
  return String(unsigned_digits(value, end), end);
}

constexpr size_t kNpos = static_cast<size_t>(-1);
constexpr size_t kWideStackUnits = 1000;    // wide to narrow: on the stack below this
constexpr size_t kNarrowStackBytes = 2000;  // narrow to wide: on the stack below this

}  // namespace

std::string to_string(bool value) { return value ? "true" : "false"; }
std::string to_string(char value) { return decimal<std::string>(static_cast<signed char>(value)); }
std::string to_string(short value) { return decimal<std::string>(value); }
std::string to_string(int value) { return decimal<std::string>(value); }
std::string to_string(long value) { return decimal<std::string>(value); }
std::string to_string(long long value) { return decimal<std::string>(value); }
std::string to_string(unsigned char value) { return decimal_unsigned<std::string>(value); }
std::string to_string(unsigned short value) { return decimal_unsigned<std::string>(value); }
std::string to_string(unsigned int value) { return decimal_unsigned<std::string>(value); }
std::string to_string(unsigned long value) { return decimal_unsigned<std::string>(value); }
std::string to_string(unsigned long long value) { return decimal_unsigned<std::string>(value); }

std::wstring to_wstring(bool value) { return value ? L"true" : L"false"; }
std::wstring to_wstring(char value) {
  return decimal<std::wstring>(static_cast<signed char>(value));
}
std::wstring to_wstring(short value) { return decimal<std::wstring>(value); }
std::wstring to_wstring(int value) { return decimal<std::wstring>(value); }
std::wstring to_wstring(long value) { return decimal<std::wstring>(value); }
std::wstring to_wstring(long long value) { return decimal<std::wstring>(value); }
std::wstring to_wstring(unsigned char value) { return decimal_unsigned<std::wstring>(value); }
std::wstring to_wstring(unsigned short value) { return decimal_unsigned<std::wstring>(value); }
std::wstring to_wstring(unsigned int value) { return decimal_unsigned<std::wstring>(value); }
std::wstring to_wstring(unsigned long value) { return decimal_unsigned<std::wstring>(value); }
std::wstring to_wstring(unsigned long long value) { return decimal_unsigned<std::wstring>(value); }

// ---- Between the two kinds of string ---------------------------------------------------------

std::string to_string(wchar_t const* text, size_t size, char replacement, int* first_invalid) {
  if (size == kNpos) size = std::wcslen(text);
  if (size == 0) {
    if (first_invalid != nullptr) *first_invalid = -1;
    return std::string();
  }
  if (size < kWideStackUnits) {
    char buffer[4 * kWideStackUnits];  // four bytes a unit is always enough
    size_t n = wstr_to_utf8(text, size, buffer, sizeof(buffer), replacement, first_invalid);
    return std::string(buffer, n);
  }
  std::string result(wstr_to_utf8(text, size, nullptr, 0, replacement, first_invalid), '\0');
  wstr_to_utf8(text, size, result.data(), result.size(), replacement, first_invalid);
  return result;
}

std::wstring to_wstring(char const* text, size_t size, wchar_t replacement, int* first_invalid) {
  if (size == kNpos) size = std::strlen(text);
  if (size == 0) {
    if (first_invalid != nullptr) *first_invalid = -1;
    return std::wstring();
  }
  if (size < kNarrowStackBytes) {
    wchar_t buffer[kNarrowStackBytes];  // one unit a byte is always enough
    size_t n = utf8_to_wstr(text, size, buffer, kNarrowStackBytes, replacement, first_invalid);
    return std::wstring(buffer, n);
  }
  std::wstring result(utf8_to_wstr(text, size, nullptr, 0, replacement, first_invalid), L'\0');
  utf8_to_wstr(text, size, result.data(), result.size(), replacement, first_invalid);
  return result;
}

std::string to_string(std::string const& text) { return text; }
std::string to_string(std::wstring const& text) { return to_string(text.data(), text.size()); }
std::string to_string(char const* text) { return std::string(text); }
std::string to_string(char const* text, size_t size) {
  return size == kNpos ? std::string(text) : std::string(text, size);
}
std::string to_string(wchar_t const* text) { return to_string(text, kNpos); }
std::string to_string(wchar_t const* text, size_t size) {
  return to_string(text, size, 0, nullptr);
}
std::string to_string(std::wstring const& text, char replacement, int* first_invalid) {
  return to_string(text.data(), text.size(), replacement, first_invalid);
}

std::wstring to_wstring(std::string const& text) { return to_wstring(text.data(), text.size()); }
std::wstring to_wstring(std::wstring const& text) { return text; }
std::wstring to_wstring(char const* text) { return to_wstring(text, kNpos); }
std::wstring to_wstring(char const* text, size_t size) {
  return to_wstring(text, size, 0, nullptr);
}
std::wstring to_wstring(wchar_t const* text) { return std::wstring(text); }
std::wstring to_wstring(wchar_t const* text, size_t size) {
  return size == kNpos ? std::wstring(text) : std::wstring(text, size);
}
std::wstring to_wstring(std::string const& text, wchar_t replacement, int* first_invalid) {
  return to_wstring(text.data(), text.size(), replacement, first_invalid);
}

// ---- Failures --------------------------------------------------------------------------------

namespace impl {
namespace {

char const kFileId[] = TQCORE_FILE_ID("string_to");

void report(ErrorInfo::Ptr record, ErrorInfo::Ptr* error) {
  if (error == nullptr) ErrorException::throw_error(record);
  error->swap(record);
}

std::string quoted(char const* text, size_t size) {
  std::ostringstream out;
  streamers::String::write_string(out, text, size, streamers::String::maxlenDefault, '"');
  return stream_text(out);
}

std::string quoted(wchar_t const* text, size_t size) {
  std::ostringstream out;
  streamers::WString::write_string(out, text, size, streamers::WString::maxlenDefault, '"');
  return stream_text(out);
}

ErrorParams type_and_text(std::type_info const& type, std::string const& text) {
  ErrorParams params;
  params.add(SourceString::create_reference("type"), demangled_type_name(type));
  params.add(SourceString::create_reference("text"), text);
  return params;
}

}  // namespace

void string_to_failure(char const* text, size_t size, std::type_info const& type,
                       ErrorInfo::Ptr* error) {
  if (text == nullptr) size = 0;
  size_t const shown = utf8_limit_length(text, size, 128);
  report(ErrorInfo::create(error::tqcore_string_extraction,
                           "tqcore::string_to<{@type}>(\"{@text}\") conversion failed.",
                           type_and_text(type, std::string(text != nullptr ? text : "", shown)),
                           SourceLocation("tqcore::impl::string_to_failure()", kFileId, __LINE__)),
         error);
}

void string_to_failure(wchar_t const* text, size_t size, std::type_info const& type,
                       ErrorInfo::Ptr* error) {
  std::string const narrow = text != nullptr ? to_string(text, size, '?', nullptr) : std::string();
  string_to_failure(narrow.data(), narrow.size(), type, error);
}

template <class Char>
void bad_arg(char const* name, size_t value, std::type_info const& type, Char const* text,
             size_t size, ErrorInfo::Ptr* error) {
  ErrorParams params = type_and_text(type, quoted(text, size));
  params.add(SourceString::create_reference("name"), name != nullptr ? name : "");
  params.add(SourceString::create_reference("value"), std::to_string(value));
  report(ErrorInfo::create(
             error::tqcore_string_extraction,
             "Invalid '{@name}' argument specified ({@value}) while attempting to "
             "convert {@text} into a value of type {@type}.",
             std::move(params),
             SourceLocation("tqcore::impl::base_n_string_to_error_bad_arg()", kFileId, __LINE__)),
         error);
}

void base_n_string_to_error_bad_arg(char const* name, size_t value, std::type_info const& type,
                                    char const* text, size_t size, ErrorInfo::Ptr* error) {
  bad_arg(name, value, type, text, size, error);
}

void base_n_string_to_error_bad_arg(char const* name, size_t value, std::type_info const& type,
                                    wchar_t const* text, size_t size, ErrorInfo::Ptr* error) {
  bad_arg(name, value, type, text, size, error);
}

template <class Char>
void bad_numeral(std::string const& character, unsigned int radix, std::type_info const& type,
                 Char const* text, size_t size, ErrorInfo::Ptr* error) {
  ErrorParams params = type_and_text(type, quoted(text, size));
  params.add(SourceString::create_reference("radix"), std::to_string(radix));
  params.add(SourceString::create_reference("character"), character);
  report(ErrorInfo::create(error::tqcore_string_extraction,
                           "Invalid base-{@radix} numeral ('{@character}') found while attempting "
                           "to convert {@text} into a value of type {@type}.",
                           std::move(params),
                           SourceLocation("tqcore::impl::base_n_string_to_error_bad_numeral()",
                                          kFileId, __LINE__)),
         error);
}

void base_n_string_to_error_bad_numeral(char character, unsigned int radix,
                                        std::type_info const& type, char const* text, size_t size,
                                        ErrorInfo::Ptr* error) {
  bad_numeral(std::string(1, character), radix, type, text, size, error);
}

void base_n_string_to_error_bad_numeral(wchar_t character, unsigned int radix,
                                        std::type_info const& type, wchar_t const* text,
                                        size_t size, ErrorInfo::Ptr* error) {
  bad_numeral(to_string(&character, 1, '?', nullptr), radix, type, text, size, error);
}

template <class Char>
void overflow(unsigned int radix, std::type_info const& type, Char const* text, size_t size,
              ErrorInfo::Ptr* error) {
  ErrorParams params = type_and_text(type, quoted(text, size));
  params.add(SourceString::create_reference("radix"), std::to_string(radix));
  report(ErrorInfo::create(
             error::tqcore_string_extraction,
             "The value of the base-{@radix} sequence {@text} is too large to be "
             "represented by the {@type} type.",
             std::move(params),
             SourceLocation("tqcore::impl::base_n_string_to_error_overflow()", kFileId, __LINE__)),
         error);
}

void base_n_string_to_error_overflow(unsigned int radix, std::type_info const& type,
                                     char const* text, size_t size, ErrorInfo::Ptr* error) {
  overflow(radix, type, text, size, error);
}

void base_n_string_to_error_overflow(unsigned int radix, std::type_info const& type,
                                     wchar_t const* text, size_t size, ErrorInfo::Ptr* error) {
  overflow(radix, type, text, size, error);
}

// ---- Text to bool, double, float -------------------------------------------------------------

namespace {

bool is_word(char const* text, size_t size, char const* word) {
  return compare_nocase_ascii(text, size, word, std::strlen(word)) == 0;
}

// True and false by their words; 0 for neither, 1 false, 2 true.
int boolean_word(char const* text, size_t size) {
  if (size == 1 && text[0] == '1') return 2;
  if (is_word(text, size, "true") || is_word(text, size, "yes") || is_word(text, size, "y"))
    return 2;
  if (size == 1 && text[0] == '0') return 1;
  if (is_word(text, size, "false") || is_word(text, size, "no") || is_word(text, size, "n"))
    return 1;
  return 0;
}

constexpr size_t kLongestNumber = kLongestDoubleText;

// strtod's result for the text, or false if it does not consume it all; the text is at most
// kLongestNumber characters. Kept out of line: its buffer would cost the common case a frame.
[[gnu::noinline]] bool strtod_double(char const* text, size_t size, double* value) {
  char buffer[kLongestNumber + 1];  // strtod needs a terminated copy
  std::memcpy(buffer, text, size);
  buffer[size] = '\0';
  char* end = nullptr;
  *value = std::strtod(buffer, &end);
  return end == buffer + size;
}

// A correctly rounded from_chars result is strtod's too wherever from_chars takes the whole
// text and gives a finite value; everything else (white space, '+', hexadecimal, inf, nan,
// overflow, underflow) goes to strtod itself.
inline bool parse_double(char const* text, size_t size, double* value) {
  std::from_chars_result const parsed = std::from_chars(text, text + size, *value);
  if (parsed.ec == std::errc() && parsed.ptr == text + size && std::isfinite(*value)) return true;
  return strtod_double(text, size, value);
}

// A wide number holds ASCII only; anything else cannot be one.
bool narrow_number(wchar_t const* text, size_t size, char* out) {
  for (size_t i = 0; i < size; ++i) {
    if (static_cast<unsigned int>(text[i]) >= 0x80) return false;
    out[i] = static_cast<char>(text[i]);
  }
  return true;
}

double checked_double(char const* text, size_t size, std::type_info const& type,
                      ErrorInfo::Ptr* error) {
  double value = 0;
  if (size <= kLongestNumber && parse_double(text, size, &value)) return value;
  string_to_failure(text, size, type, error);
  return std::numeric_limits<double>::quiet_NaN();
}

double checked_double(wchar_t const* text, size_t size, std::type_info const& type,
                      ErrorInfo::Ptr* error) {
  char narrow[kLongestNumber];
  double value = 0;
  if (size <= kLongestNumber && narrow_number(text, size, narrow) &&
      parse_double(narrow, size, &value)) {
    return value;
  }
  string_to_failure(text, size, type, error);
  return std::numeric_limits<double>::quiet_NaN();
}

template <class Char>
float checked_float(Char const* text, size_t size, ErrorInfo::Ptr* error) {
  double const value = checked_double(text, size, typeid(float), error);
  if (std::fabs(value) > 3.4028234663852886e38) string_to_failure(text, size, typeid(float), error);
  return static_cast<float>(value);
}

}  // namespace

bool string_to_bool(char const* text, size_t size, ErrorInfo::Ptr* error) {
  int const word = boolean_word(text, size);
  if (word == 0) string_to_failure(text, size, typeid(bool), error);
  return word == 2;
}

bool string_to_bool(wchar_t const* text, size_t size, ErrorInfo::Ptr* error) {
  if (size < 6) {
    char buffer[5];
    size_t const n = wstr_to_utf8(text, size, buffer, sizeof(buffer), 0, nullptr);
    if (n != 0) return string_to_bool(buffer, n, error);
  }
  std::string const narrow = to_string(text, size);
  string_to_failure(narrow.data(), narrow.size(), typeid(bool), error);
  return false;
}

double string_to_double(char const* text, size_t size, ErrorInfo::Ptr* error) {
  return checked_double(text, size, typeid(double), error);
}

double string_to_double(wchar_t const* text, size_t size, ErrorInfo::Ptr* error) {
  return checked_double(text, size, typeid(double), error);
}

float string_to_float(char const* text, size_t size, ErrorInfo::Ptr* error) {
  return checked_float(text, size, error);
}

float string_to_float(wchar_t const* text, size_t size, ErrorInfo::Ptr* error) {
  return checked_float(text, size, error);
}

}  // namespace impl
}  // namespace tqcore
