/// @file
/// Base-64, base-32 and hexadecimal codecs: templates over iterators, and functions on buffers.
///
/// Encoders write the standard alphabets of RFC 4648 (hexadecimal in lower case), with padding
/// unless asked not to. Decoders accept the standard and the URL-safe base-64 alphabet, even
/// mixed, upper- and lower-case base-32 and hexadecimal, with or without padding; padding, when
/// present, must complete the last group. Failures raise ErrorException with
/// "error.tqcore.transforms.<codec>.invalid" (a character outside the alphabet), ".truncated"
/// (the text ends inside a group) or ".padding" (a character after padding).
///
/// Failures: decoding raises "error.tqcore.transforms.base64.invalid", ".truncated" or ".padding"
/// (and the same under base32 and hex, which has no padding); encoding raises only std::bad_alloc.
///
/// @code
/// std::string const bytes = "foobar";
/// std::string const text = tqcore::base64_encode(bytes.data(), bytes.size());  // Zm9vYmFy
/// std::vector<uint8_t> const back = tqcore::base64_decode(text);  // raises on bad input
/// @endcode
#pragma once

#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tqcore {

enum class ETransformPadding { padded, unpadded };

namespace impl {

class TQCORE_EXPORT TransformHelperBase64 {
 public:
  static char const sm_fromBinaryTable[];
  /// A seven-bit character's six-bit value, 128 for '=', 255 for anything else.
  static unsigned char const sm_toBinaryTable[128];
  [[noreturn]] static void raise_invalid_character_error();
  [[noreturn]] static void raise_truncated_sequence_error();
  /// Returns for '=', raises the padding error for anything else.
  static void check_padding_char(int c);
};

class TQCORE_EXPORT TransformHelperBase32 {
 public:
  static char const sm_fromBinaryTable[];
  /// '=' characters that complete the last group, by the bits left after the last full group.
  static int const sm_padcountTable[5];
  [[noreturn]] static void raise_invalid_character_error();
  [[noreturn]] static void raise_truncated_sequence_error();
  [[noreturn]] static void raise_padding_error();
};

class TQCORE_EXPORT TransformHelperHex {
 public:
  /// The library's one table of hexadecimal digits.
  static constexpr char sm_fromBinaryTable[17] = "0123456789abcdef";
  [[noreturn]] static void raise_invalid_character_error();
  [[noreturn]] static void raise_truncated_sequence_error();
  /// '0'-'9', 'a'-'f', 'A'-'F' to their value; anything else raises.
  static unsigned char nibble_from_charval(int c);
};

/// Base-32 characters to five-bit values, in either case; 255 for anything else. A table, as
/// random text would mispredict a chain of range tests.
struct Base32Values {
  unsigned char values[256];
  constexpr Base32Values() : values() {
    for (int c = 0; c < 256; ++c) {
      values[c] = c >= 'A' && c <= 'Z'   ? static_cast<unsigned char>(c - 'A')
                  : c >= 'a' && c <= 'z' ? static_cast<unsigned char>(c - 'a')
                  : c >= '2' && c <= '7' ? static_cast<unsigned char>(c - '2' + 26)
                                         : 255;
    }
  }
};
inline constexpr Base32Values kBase32Values{};

inline unsigned char base32_value(int c) { return kBase32Values.values[c & 0xFF]; }

}  // namespace impl

// ---- Templates over iterators: bytes in, characters out, and back ----------------------------

namespace impl {
template <class It>
constexpr bool kRandomAccess =
    std::is_base_of<std::random_access_iterator_tag,
                    typename std::iterator_traits<It>::iterator_category>::value;
}  // namespace impl

template <class InputIt, class OutputIt>
OutputIt base64_encode(InputIt first, InputIt last, OutputIt out,
                       ETransformPadding padding = ETransformPadding::padded) {
  char const* const alphabet = impl::TransformHelperBase64::sm_fromBinaryTable;
  if constexpr (impl::kRandomAccess<InputIt>) {  // whole groups without counting
    for (; last - first >= 3; first += 3) {
      unsigned int const group =
          (static_cast<unsigned int>(static_cast<unsigned char>(first[0])) << 16) |
          (static_cast<unsigned int>(static_cast<unsigned char>(first[1])) << 8) |
          static_cast<unsigned char>(first[2]);
      *out++ = alphabet[group >> 18];
      *out++ = alphabet[(group >> 12) & 63];
      *out++ = alphabet[(group >> 6) & 63];
      *out++ = alphabet[group & 63];
    }
  }
  unsigned int group = 0;
  int count = 0;
  for (; first != last; ++first) {
    group = (group << 8) | static_cast<unsigned char>(*first);
    if (++count == 3) {
      *out++ = alphabet[(group >> 18) & 63];
      *out++ = alphabet[(group >> 12) & 63];
      *out++ = alphabet[(group >> 6) & 63];
      *out++ = alphabet[group & 63];
      group = 0;
      count = 0;
    }
  }
  if (count > 0) {
    group <<= 8 * (3 - count);
    *out++ = alphabet[(group >> 18) & 63];
    *out++ = alphabet[(group >> 12) & 63];
    if (count == 2) *out++ = alphabet[(group >> 6) & 63];
    if (padding == ETransformPadding::padded) {
      for (int k = count; k < 3; ++k) *out++ = '=';
    }
  }
  return out;
}

template <class InputIt, class OutputIt>
OutputIt base64_decode(InputIt first, InputIt last, OutputIt out) {
  using Helper = impl::TransformHelperBase64;
  if constexpr (impl::kRandomAccess<InputIt>) {
    // Whole groups of four ordinary characters; anything else goes to the loop below.
    auto value = [](char c) -> unsigned int {
      return static_cast<unsigned char>(c) < 128
                 ? Helper::sm_toBinaryTable[static_cast<unsigned char>(c)]
                 : 255u;
    };
    for (; last - first >= 4; first += 4) {
      unsigned int const v0 = value(first[0]), v1 = value(first[1]), v2 = value(first[2]),
                         v3 = value(first[3]);
      if (((v0 | v1 | v2 | v3) & 0x80) != 0) break;
      unsigned int const group = (v0 << 18) | (v1 << 12) | (v2 << 6) | v3;
      *out++ = static_cast<char>(group >> 16);
      *out++ = static_cast<char>(group >> 8);
      *out++ = static_cast<char>(group);
    }
  }
  unsigned int group = 0;
  int count = 0;   // characters of the group so far
  int padded = 0;  // padding characters seen
  for (; first != last; ++first) {
    // Negative for a byte above 0x7F, which no table holds.
    int const c = static_cast<signed char>(*first);  // NOLINT(bugprone-signed-char-misuse)
    if (padded > 0) {
      Helper::check_padding_char(c);
      ++padded;
      continue;
    }
    unsigned char const value = c >= 0 ? Helper::sm_toBinaryTable[c] : 255;
    if (value == 255) Helper::raise_invalid_character_error();
    if (value == 128) {
      padded = 1;
      continue;
    }
    group = (group << 6) | value;
    if (++count == 4) {
      *out++ = static_cast<char>(group >> 16);
      *out++ = static_cast<char>(group >> 8);
      *out++ = static_cast<char>(group);
      group = 0;
      count = 0;
    }
  }
  // One character is no byte; padding, when present, completes the group.
  if (count == 1 || (padded > 0 && (count == 0 || count + padded != 4))) {
    Helper::raise_truncated_sequence_error();
  }
  if (count >= 2) *out++ = static_cast<char>(group >> (6 * count - 8));
  if (count == 3) *out++ = static_cast<char>(group >> 2);
  return out;
}

template <class InputIt, class OutputIt>
OutputIt base32_encode(InputIt first, InputIt last, OutputIt out,
                       ETransformPadding padding = ETransformPadding::padded) {
  char const* const alphabet = impl::TransformHelperBase32::sm_fromBinaryTable;
  uint64_t group = 0;
  int count = 0;
  for (; first != last; ++first) {
    group = (group << 8) | static_cast<unsigned char>(*first);
    if (++count == 5) {
      for (int shift = 35; shift >= 0; shift -= 5) *out++ = alphabet[(group >> shift) & 31];
      group = 0;
      count = 0;
    }
  }
  if (count > 0) {
    int const bits = 8 * count;
    int const characters = (bits + 4) / 5;
    group <<= 5 * characters - bits;
    for (int k = characters - 1; k >= 0; --k) *out++ = alphabet[(group >> (5 * k)) & 31];
    if (padding == ETransformPadding::padded) {
      int const pad = impl::TransformHelperBase32::sm_padcountTable[bits % 5];
      for (int k = 0; k < pad; ++k) *out++ = '=';
    }
  }
  return out;
}

template <class InputIt, class OutputIt>
OutputIt base32_decode(InputIt first, InputIt last, OutputIt out) {
  using Helper = impl::TransformHelperBase32;
  uint64_t group = 0;
  int count = 0;
  int padded = 0;
  for (; first != last; ++first) {
    // Negative for a byte above 0x7F, which no table holds.
    int const c = static_cast<signed char>(*first);  // NOLINT(bugprone-signed-char-misuse)
    if (padded > 0) {
      if (c != '=') Helper::raise_padding_error();
      ++padded;
      continue;
    }
    if (c == '=') {
      padded = 1;
      continue;
    }
    unsigned char const value = impl::base32_value(c);
    if (value == 255) Helper::raise_invalid_character_error();
    group = (group << 5) | value;
    if (++count == 8) {
      for (int shift = 32; shift >= 0; shift -= 8) *out++ = static_cast<char>(group >> shift);
      group = 0;
      count = 0;
    }
  }
  // A final group of 2, 4, 5 or 7 characters holds 1 to 4 bytes; padding completes it.
  if (count == 1 || count == 3 || count == 6 ||
      (padded > 0 && (count == 0 || count + padded != 8))) {
    Helper::raise_truncated_sequence_error();
  }
  int const bytes = count * 5 / 8;
  for (int k = 0; k < bytes; ++k) {
    *out++ = static_cast<char>(group >> (count * 5 - 8 * (k + 1)));
  }
  return out;
}

template <class InputIt, class OutputIt>
OutputIt hex_encode(InputIt first, InputIt last, OutputIt out) {
  char const* const digits = impl::TransformHelperHex::sm_fromBinaryTable;
  for (; first != last; ++first) {
    unsigned char const byte = static_cast<unsigned char>(*first);
    *out++ = digits[byte >> 4];
    *out++ = digits[byte & 15];
  }
  return out;
}

template <class InputIt, class OutputIt>
OutputIt hex_decode(InputIt first, InputIt last, OutputIt out) {
  using Helper = impl::TransformHelperHex;
  while (first != last) {
    unsigned char const high = Helper::nibble_from_charval(static_cast<signed char>(*first++));
    if (first == last) Helper::raise_truncated_sequence_error();
    unsigned char const low = Helper::nibble_from_charval(static_cast<signed char>(*first++));
    *out++ = static_cast<char>((high << 4) | low);
  }
  return out;
}

// ---- Functions on buffers: the same results, in vector blocks where the processor allows ----

TQCORE_EXPORT std::string base64_encode(void const* data, size_t size,
                                        ETransformPadding padding = ETransformPadding::padded);
TQCORE_EXPORT std::vector<uint8_t> base64_decode(std::string_view text);
TQCORE_EXPORT std::string base32_encode(void const* data, size_t size,
                                        ETransformPadding padding = ETransformPadding::padded);
TQCORE_EXPORT std::vector<uint8_t> base32_decode(std::string_view text);
TQCORE_EXPORT std::string hex_encode(void const* data, size_t size);
TQCORE_EXPORT std::vector<uint8_t> hex_decode(std::string_view text);

inline std::string base64_encode(std::vector<uint8_t> const& data,
                                 ETransformPadding padding = ETransformPadding::padded) {
  return base64_encode(data.data(), data.size(), padding);
}
inline std::string base32_encode(std::vector<uint8_t> const& data,
                                 ETransformPadding padding = ETransformPadding::padded) {
  return base32_encode(data.data(), data.size(), padding);
}
inline std::string hex_encode(std::vector<uint8_t> const& data) {
  return hex_encode(data.data(), data.size());
}

}  // namespace tqcore
