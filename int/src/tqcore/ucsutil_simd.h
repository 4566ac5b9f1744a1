// Vector shortcuts of the Unicode code. They only accept: whatever they cannot vouch for is
// left to the exact scalar rules.
#pragma once

#include <cstddef>

namespace tqcore {
namespace impl {

// The library's one choice of a vector path: whether the processor has AVX2.
extern bool const g_hasAvx2;
inline bool has_avx2() noexcept { return g_hasAvx2; }

// The length of a prefix of `text` that is valid UTF-8 by the library's rules and ends where a
// sequence begins; 0 where the processor has no AVX2. With `for_conversion` the prefix also
// holds no U+FFFE or U+FFFF, which the validator lets pass and the conversions refuse.
size_t utf8_valid_prefix(char const* text, size_t size, bool for_conversion = false) noexcept;

// How far a vector conversion got: source units consumed, destination units written.
struct ConversionProgress {
  size_t consumed;
  size_t written;
};

// The valid prefix as above, for any size; the processor must have AVX2.
size_t valid_prefix_vector(char const* text, size_t size, bool for_conversion) noexcept;

// Converts the longest prefix of `text` that the vector validator finds valid and the
// conversions accept to UTF-16 (16-bit units) or UCS-4 (32-bit units) while the destination
// has room; stops where a character begins, fewer than 66 bytes before the end or the first byte
// it cannot vouch for. A text of 16 to 32 bytes is converted whole or not at all. Writes nothing
// beyond `capacity`. Does nothing where the processor has no AVX2, or for texts shorter than
// 16 bytes or of 33 to 65.
template <class Unit>
ConversionProgress utf8_to_units_prefix(char const* text, size_t size, Unit* out,
                                        size_t capacity) noexcept;

// Converts UTF-16 to UTF-8 while the units are well formed and accepted by the conversions
// and the destination has room; stops before the first unit it cannot vouch for. A text of 8 to
// 31 units is converted whole or not at all; shorter ones are left to the caller.
ConversionProgress utf16_to_utf8_valid(unsigned short const* text, size_t size, char* out,
                                       size_t capacity) noexcept;
// The same from UCS-4 and from 32-bit wide units: units below U+10000 that the conversions
// accept (no surrogate: 32-bit text has no pairs).
ConversionProgress ucs4_to_utf8_valid(unsigned int const* text, size_t size, char* out,
                                      size_t capacity) noexcept;
ConversionProgress wide_to_utf8_valid(wchar_t const* text, size_t size, char* out,
                                      size_t capacity) noexcept;
// The UTF-8 length of the longest such prefix of `text`, with `*consumed` its unit count.
size_t utf16_to_utf8_length_valid(unsigned short const* text, size_t size,
                                  size_t* consumed) noexcept;

// The length of valid UTF-8 text in units of `unit_size` bytes (2: UTF-16, 4: UCS-4).
size_t utf8_to_units_length_valid(char const* text, size_t size, size_t unit_size) noexcept;

}  // namespace impl
}  // namespace tqcore
