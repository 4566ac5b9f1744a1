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

// Converts a prefix of `text`, which must be valid UTF-8 as utf8_valid_prefix vouches, to
// UTF-16 while the destination has room; stops where a sequence begins. Writes nothing beyond
// `capacity`. Does nothing where the processor has no AVX2.
ConversionProgress utf8_to_utf16_valid(char const* text, size_t size, unsigned short* out,
                                       size_t capacity) noexcept;
// Converts UTF-16 to UTF-8 while the units are well formed and accepted by the conversions
// and the destination has room; stops before the first unit it cannot vouch for.
ConversionProgress utf16_to_utf8_valid(unsigned short const* text, size_t size, char* out,
                                       size_t capacity) noexcept;
// The UTF-8 length of the longest such prefix of `text`, with `*consumed` its unit count.
size_t utf16_to_utf8_length_valid(unsigned short const* text, size_t size,
                                  size_t* consumed) noexcept;

// The UTF-16 length of valid UTF-8 text, as above.
size_t utf8_to_utf16_length_valid(char const* text, size_t size) noexcept;

}  // namespace impl
}  // namespace tqcore
