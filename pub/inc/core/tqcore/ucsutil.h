/// @file
/// Conversions between UTF-8, UTF-16, UCS-4 and wide strings, the strict UTF-8 validator and the
/// in-place repair. Nothing here allocates or keeps state.
///
/// UTF-8 is the six-byte form: lead bytes up to 0xFD, scalars up to 0x7FFFFFFF. U+FEFF is never
/// a character; U+FFFE and U+FFFF are refused by the per-character conversions but pass the
/// validator and the repair.
///
/// Per-character functions return a count, 0 on failure, with errno EINVAL (refused or
/// malformed) or ENOMEM (no room). String functions share one contract:
///  - a source size of all ones means "up to and including the first zero unit";
///  - a null destination measures: the result is the exact size the writing call needs;
///  - `first_invalid`, if not null, is -1 on return or the offset (in source units) of the
///    first unconvertible character;
///  - a zero replacement raises ErrorException on the first unconvertible character, any other
///    replacement stands in for it;
///  - a result of 0 for a non-empty source means the destination was too small.
///
/// wchar_t is 32 bits here. The wide functions give, for the same characters, the results of
/// the 16-bit form: surrogate code points and scalars from U+110000 are refused as UTF-16
/// refuses them, a character that needs a surrogate pair in UTF-16 is one wchar_t, and offsets
/// count wchar_t units.
///
/// Failures: a zero replacement makes a conversion raise "error.tqcore.string.utf8.invalid",
/// ".overlong" or ".partial" (UTF-8) or "error.tqcore.string.conversion" (UTF-16 and UCS-4) at the
/// first fault; any other replacement stands in for bad input. Validation never raises.
///
/// @code
/// std::string const text = "gr\xC3\xBC\xC3\x9F";  // "grüß"
/// if (tqcore::is_valid_utf8(text.data(), text.size())) {
///   size_t const n = tqcore::utf8_to_utf16(text.data(), text.size(), nullptr, 0, 0xFFFD, nullptr);
///   std::vector<unsigned short> utf16(n);
///   tqcore::utf8_to_utf16(text.data(), text.size(), utf16.data(), n, 0xFFFD, nullptr);
/// }
/// @endcode
#pragma once

#include <tqcore/error_info.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>

namespace tqcore {

/// Length of the sequence that `lead` begins, 0 for a byte that begins none. Sets no errno.
TQCORE_EXPORT size_t utf8_sequence_length(char lead) noexcept;
/// 1 to 6 bytes for a scalar; 0 and EINVAL for surrogates, U+FEFF, U+FFFE and U+FFFF.
TQCORE_EXPORT size_t ucs4_char_utf8_length(unsigned int scalar) noexcept;
TQCORE_EXPORT size_t ucs4_char_to_utf8(unsigned int scalar, char* first, char* end) noexcept;
TQCORE_EXPORT size_t utf8_to_ucs4_char(char const* text, size_t size, unsigned int* out) noexcept;
TQCORE_EXPORT size_t ucs4_char_to_utf16(unsigned int scalar, unsigned short* first,
                                        unsigned short* end) noexcept;
TQCORE_EXPORT size_t utf16_to_ucs4_char(unsigned short const* text, size_t size,
                                        unsigned int* out) noexcept;

TQCORE_EXPORT size_t utf16_to_utf8(unsigned short const* source, size_t source_size,
                                   char* destination, size_t capacity, char replacement,
                                   int* first_invalid);
TQCORE_EXPORT size_t ucs4_to_utf8(unsigned int const* source, size_t source_size, char* destination,
                                  size_t capacity, char replacement, int* first_invalid);
TQCORE_EXPORT size_t wstr_to_utf8(wchar_t const* source, size_t source_size, char* destination,
                                  size_t capacity, char replacement, int* first_invalid);
TQCORE_EXPORT size_t utf8_to_utf16(char const* source, size_t source_size,
                                   unsigned short* destination, size_t capacity,
                                   unsigned short replacement, int* first_invalid);
TQCORE_EXPORT size_t utf8_to_ucs4(char const* source, size_t source_size, unsigned int* destination,
                                  size_t capacity, unsigned int replacement, int* first_invalid);
TQCORE_EXPORT size_t utf8_to_wstr(char const* source, size_t source_size, wchar_t* destination,
                                  size_t capacity, wchar_t replacement, int* first_invalid);

/// The validator's verdicts.
enum Utf8Status : int {
  utf8_valid = 0,
  utf8_bad_first_byte = 1,
  utf8_partial = 2,
  utf8_overlong = 3,
  utf8_bad_continuation = 4,
  utf8_surrogate = 5,
  utf8_fffe = 6,
  utf8_bom = 7,
  utf8_ffff = 8,
};

/// Walks `text` and returns the status of the first fault (utf8_valid for none), setting
/// `*fault_offset` to its byte offset when it is not null. These take true sizes.
TQCORE_EXPORT int utf8_validate(char const* text, size_t size, size_t* fault_offset = nullptr);
TQCORE_EXPORT bool is_valid_utf8(char const* text, size_t size);
/// Raises the status's error ("error.tqcore.string.utf8...") if the text is not valid.
TQCORE_EXPORT void check_valid_utf8(char const* text, size_t size);
/// Overwrites every ill-formed sequence with as many replacement bytes as it has bytes.
TQCORE_EXPORT void make_valid_utf8(char* text, size_t size, char replacement, int* first_invalid);
/// The longest prefix of at most `limit` bytes that does not end inside a sequence.
TQCORE_EXPORT size_t utf8_limit_length(char const* text, size_t length, size_t limit) noexcept;

/// The record of a validator status at the caller's function and line; null for utf8_valid.
TQCORE_EXPORT ErrorInfo::Ptr utf8_status_error(int status, char const* function, unsigned int line);
/// Raises "error.tqcore.string.conversion" with the validator's verdict on the rest of the text
/// as the cause.
[[noreturn]] TQCORE_EXPORT void raise_invalid_utf8(char const* text, size_t size,
                                                   char const* function, unsigned int line);

}  // namespace tqcore
