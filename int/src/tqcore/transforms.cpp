#include <tqcore/error_code.h>
#include <tqcore/error_exception.h>
#include <tqcore/transforms.h>

#include <immintrin.h>

#include <iterator>

#include "file_ids.h"
#include "ucsutil_simd.h"

namespace tqcore {
namespace impl {
namespace {

char const kFileId[] = TQCORE_FILE_ID("transforms");

[[noreturn]] void raise(ErrorCode const& code, char const* message, char const* function,
                        unsigned int line) {
  throw_error(code, message, SourceLocation(function, kFileId, line));
}

}  // namespace

// ---- Tables and failures ---------------------------------------------------------------------

char const TransformHelperBase64::sm_fromBinaryTable[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

#define TQCORE_X 255
unsigned char const TransformHelperBase64::sm_toBinaryTable[128] = {
    TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X,  // 0x00
    TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X,
    TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X,  // 0x10
    TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X,
    TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X,   // ' '..'\''
    TQCORE_X, TQCORE_X, TQCORE_X, 62,       TQCORE_X, 62,       TQCORE_X, 63,         // '('..'/'
    52,       53,       54,       55,       56,       57,       58,       59,         // '0'..'7'
    60,       61,       TQCORE_X, TQCORE_X, TQCORE_X, 128,      TQCORE_X, TQCORE_X,   // '8'..'?'
    TQCORE_X, 0,        1,        2,        3,        4,        5,        6,          // '@'..'G'
    7,        8,        9,        10,       11,       12,       13,       14,         // 'H'..'O'
    15,       16,       17,       18,       19,       20,       21,       22,         // 'P'..'W'
    23,       24,       25,       TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, 63,         // 'X'..'_'
    TQCORE_X, 26,       27,       28,       29,       30,       31,       32,         // '`'..'g'
    33,       34,       35,       36,       37,       38,       39,       40,         // 'h'..'o'
    41,       42,       43,       44,       45,       46,       47,       48,         // 'p'..'w'
    49,       50,       51,       TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X, TQCORE_X};  // 'x'..0x7F
#undef TQCORE_X

void TransformHelperBase64::raise_invalid_character_error() {
  raise(error::tqcore_transforms_base64_invalid, "Invalid character in base-64 sequence",
        "tqcore::impl::TransformHelperBase64::raise_invalid_character_error()", __LINE__);
}

void TransformHelperBase64::raise_truncated_sequence_error() {
  raise(error::tqcore_transforms_base64_truncated, "Truncated base-64 sequence",
        "tqcore::impl::TransformHelperBase64::raise_truncated_sequence_error()", __LINE__);
}

void TransformHelperBase64::check_padding_char(int c) {
  if (c >= 0 && c < 128 && sm_toBinaryTable[c] == 128) return;
  raise(error::tqcore_transforms_base64_padding,
        "Encountered non-padding character in padding of base-64 sequence",
        "tqcore::impl::TransformHelperBase64::check_padding_char()", __LINE__);
}

char const TransformHelperBase32::sm_fromBinaryTable[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
int const TransformHelperBase32::sm_padcountTable[5] = {0, 4, 1, 6, 3};

void TransformHelperBase32::raise_invalid_character_error() {
  raise(error::tqcore_transforms_base32_invalid, "Invalid character in base-32 sequence",
        "tqcore::impl::TransformHelperBase32::raise_invalid_character_error()", __LINE__);
}

void TransformHelperBase32::raise_truncated_sequence_error() {
  raise(error::tqcore_transforms_base32_truncated, "Truncated base-32 sequence",
        "tqcore::impl::TransformHelperBase32::raise_truncated_sequence_error()", __LINE__);
}

void TransformHelperBase32::raise_padding_error() {
  raise(error::tqcore_transforms_base32_padding,
        "Encountered non-padding character in padding of base-32 sequence",
        "tqcore::impl::TransformHelperBase32::raise_padding_error()", __LINE__);
}

void TransformHelperHex::raise_invalid_character_error() {
  raise(error::tqcore_transforms_hex_invalid,
        "Invalid character in hex sequence, expecting: 0-9a-fA-F",
        "tqcore::impl::TransformHelperHex::raise_invalid_character_error()", __LINE__);
}

void TransformHelperHex::raise_truncated_sequence_error() {
  raise(error::tqcore_transforms_hex_truncated,
        "Truncated hex sequence (odd number of hex characters)",
        "tqcore::impl::TransformHelperHex::raise_truncated_sequence_error()", __LINE__);
}

unsigned char TransformHelperHex::nibble_from_charval(int c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned char>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned char>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<unsigned char>(c - 'A' + 10);
  raise_invalid_character_error();
}

}  // namespace impl

// ---- Buffers ---------------------------------------------------------------------------------
// The vector blocks below handle only what is plainly valid: standard base-64 characters, hex
// digits. The rest of the text, and any block with anything else in it, goes through the
// templates above, which decide every failure.

namespace {

// 24 bytes to 32 characters (Mula and Lemire, "Faster Base64 Encoding and Decoding Using AVX2
// Instructions"). Reads 4 bytes before `in` and 4 after the 24.
[[gnu::target("avx2")]] inline void encode_block64(unsigned char const* in, char* out) {
  __m256i data = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(in - 4));
  data = _mm256_shuffle_epi8(
      data, _mm256_set_epi8(10, 11, 9, 10, 7, 8, 6, 7, 4, 5, 3, 4, 1, 2, 0, 1, 14, 15, 13, 14, 11,
                            12, 10, 11, 8, 9, 7, 8, 5, 6, 4, 5));
  __m256i const t0 = _mm256_and_si256(data, _mm256_set1_epi32(0x0fc0fc00));
  __m256i const t1 = _mm256_mulhi_epu16(t0, _mm256_set1_epi32(0x04000040));
  __m256i const t2 = _mm256_and_si256(data, _mm256_set1_epi32(0x003f03f0));
  __m256i const t3 = _mm256_mullo_epi16(t2, _mm256_set1_epi32(0x01000010));
  __m256i const indices = _mm256_or_si256(t1, t3);
  // Six-bit values to characters: an offset by range, found by a shuffle.
  __m256i offsets = _mm256_subs_epu8(indices, _mm256_set1_epi8(51));
  __m256i const below_26 = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), indices);
  offsets = _mm256_or_si256(offsets, _mm256_and_si256(below_26, _mm256_set1_epi8(13)));
  __m256i const shift =
      _mm256_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                       '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0,
                       'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                       '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
  __m256i const text = _mm256_add_epi8(_mm256_shuffle_epi8(shift, offsets), indices);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), text);
}

// 32 standard base-64 characters to 24 bytes, stored as 32 (the last 8 are scratch); false,
// with nothing stored, if any character is not one of the 64.
[[gnu::target("avx2")]] inline bool decode_block64(char const* in, unsigned char* out) {
  __m256i text = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(in));
  __m256i const mask_2f = _mm256_set1_epi8(0x2f);
  __m256i const lut_lo =
      _mm256_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B,
                       0x1B, 0x1B, 0x1A, 0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                       0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
  __m256i const lut_hi =
      _mm256_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10,
                       0x10, 0x10, 0x10, 0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10,
                       0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
  __m256i const lut_roll =
      _mm256_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0, 0, 16, 19, 4, -65,
                       -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
  __m256i const hi_nibbles = _mm256_and_si256(_mm256_srli_epi32(text, 4), mask_2f);
  __m256i const lo_nibbles = _mm256_and_si256(text, mask_2f);
  __m256i const hi = _mm256_shuffle_epi8(lut_hi, hi_nibbles);
  __m256i const lo = _mm256_shuffle_epi8(lut_lo, lo_nibbles);
  if (!_mm256_testz_si256(lo, hi)) return false;
  __m256i const eq_2f = _mm256_cmpeq_epi8(text, mask_2f);
  __m256i const roll = _mm256_shuffle_epi8(lut_roll, _mm256_add_epi8(eq_2f, hi_nibbles));
  text = _mm256_add_epi8(text, roll);
  __m256i const merged = _mm256_maddubs_epi16(text, _mm256_set1_epi32(0x01400140));
  __m256i packed = _mm256_madd_epi16(merged, _mm256_set1_epi32(0x00011000));
  packed = _mm256_shuffle_epi8(
      packed, _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1, 2, 1, 0, 6,
                               5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
  packed = _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, -1, -1));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), packed);
  return true;
}

// 16 bytes to 32 lower-case hex digits.
[[gnu::target("avx2")]] inline void encode_block16(unsigned char const* in, char* out) {
  __m128i const bytes = _mm_loadu_si128(reinterpret_cast<__m128i const*>(in));
  __m128i const digits = _mm_loadu_si128(
      reinterpret_cast<__m128i const*>(impl::TransformHelperHex::sm_fromBinaryTable));
  __m128i const low = _mm_and_si128(bytes, _mm_set1_epi8(0x0F));
  __m128i const high = _mm_and_si128(_mm_srli_epi16(bytes, 4), _mm_set1_epi8(0x0F));
  __m128i const high_digits = _mm_shuffle_epi8(digits, high);
  __m128i const low_digits = _mm_shuffle_epi8(digits, low);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(high_digits, low_digits));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16),
                   _mm_unpackhi_epi8(high_digits, low_digits));
}

// 32 hex digits (either case) to 16 bytes; false, with nothing stored, for anything else.
[[gnu::target("avx2")]] inline bool decode_block16(char const* in, unsigned char* out) {
  __m256i const text = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(in));
  __m256i const lower = _mm256_or_si256(text, _mm256_set1_epi8(0x20));
  // Digits: '0'..'9'; letters: 'a'..'f' after folding. Signed compares on values below 0x80.
  __m256i const digit = _mm256_and_si256(_mm256_cmpgt_epi8(text, _mm256_set1_epi8('0' - 1)),
                                         _mm256_cmpgt_epi8(_mm256_set1_epi8('9' + 1), text));
  __m256i const letter = _mm256_and_si256(_mm256_cmpgt_epi8(lower, _mm256_set1_epi8('a' - 1)),
                                          _mm256_cmpgt_epi8(_mm256_set1_epi8('f' + 1), lower));
  if (static_cast<unsigned>(_mm256_movemask_epi8(_mm256_or_si256(digit, letter))) != 0xFFFFFFFFu) {
    return false;
  }
  __m256i const values = _mm256_blendv_epi8(_mm256_sub_epi8(lower, _mm256_set1_epi8('a' - 10)),
                                            _mm256_sub_epi8(text, _mm256_set1_epi8('0')), digit);
  // Pairs of nibbles to bytes: high * 16 + low.
  __m256i const bytes = _mm256_maddubs_epi16(values, _mm256_set1_epi16(0x0110));
  __m256i const packed = _mm256_packus_epi16(bytes, bytes);
  __m256i const ordered = _mm256_permute4x64_epi64(packed, 0x08);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(ordered));
  return true;
}

// Two five-byte groups (at `in` and `in` + 5) as sixteen five-bit values in 16-bit lanes:
// character k of a group is a 16-bit big-endian window of the group shifted right.
[[gnu::target("avx2")]] inline __m256i base32_fields(unsigned char const* in) {
  __m256i const bytes = _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<__m128i const*>(in))),
      _mm_loadu_si128(reinterpret_cast<__m128i const*>(in + 5)), 1);
  __m256i const windows =
      _mm256_shuffle_epi8(bytes, _mm256_setr_epi8(1, 0, 1, 0, 2, 1, 2, 1, 3, 2, 4, 3, 4, 3, 5, 4, 1,
                                                  0, 1, 0, 2, 1, 2, 1, 3, 2, 4, 3, 4, 3, 5, 4));
  // Right shifts of 11, 6, 9, 4, 7, 10, 5, 8 as the high halves of products.
  __m256i const shifted = _mm256_mulhi_epu16(
      windows,
      _mm256_setr_epi16(1 << 5, 1 << 10, 1 << 7, 1 << 12, 1 << 9, 1 << 6, 1 << 11, 1 << 8, 1 << 5,
                        1 << 10, 1 << 7, 1 << 12, 1 << 9, 1 << 6, 1 << 11, 1 << 8));
  return _mm256_and_si256(shifted, _mm256_set1_epi16(31));
}

// 20 bytes to 32 base-32 characters. Reads 32 bytes.
[[gnu::target("avx2")]] inline void encode_block32(unsigned char const* in, char* out) {
  __m256i const first = base32_fields(in);        // groups 0 and 1
  __m256i const second = base32_fields(in + 10);  // groups 2 and 3
  __m256i values = _mm256_permute4x64_epi64(_mm256_packus_epi16(first, second), 0xD8);
  // 'A' + v below 26, '2' + (v - 26) from there.
  __m256i const digits = _mm256_cmpgt_epi8(values, _mm256_set1_epi8(25));
  values = _mm256_add_epi8(values, _mm256_set1_epi8('A'));
  values = _mm256_sub_epi8(values, _mm256_and_si256(digits, _mm256_set1_epi8('A' - '2' + 26)));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), values);
}

// 32 base-32 characters (either case) to 20 bytes, stored as 26; false, with nothing stored,
// for any other character.
[[gnu::target("avx2")]] inline bool decode_block32(char const* in, unsigned char* out) {
  __m256i const text = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(in));
  __m256i const letter =
      _mm256_sub_epi8(_mm256_or_si256(text, _mm256_set1_epi8(0x20)), _mm256_set1_epi8('a'));
  __m256i const digit = _mm256_sub_epi8(text, _mm256_set1_epi8('2'));
  // Unsigned "below": the minimum with the bound equals the value.
  __m256i const is_letter =
      _mm256_cmpeq_epi8(_mm256_min_epu8(letter, _mm256_set1_epi8(25)), letter);
  __m256i const is_digit = _mm256_cmpeq_epi8(_mm256_min_epu8(digit, _mm256_set1_epi8(5)), digit);
  // Folding maps some punctuation onto letters; only the true letters count.
  __m256i const alpha = _mm256_cmpgt_epi8(text, _mm256_set1_epi8('@'));
  __m256i const valid = _mm256_or_si256(_mm256_and_si256(is_letter, alpha), is_digit);
  if (static_cast<unsigned>(_mm256_movemask_epi8(valid)) != 0xFFFFFFFFu) return false;
  __m256i const values =
      _mm256_blendv_epi8(letter, _mm256_add_epi8(digit, _mm256_set1_epi8(26)), is_digit);
  // Pairs to 10 bits, pairs of those to 20, two 20-bit halves to one 40-bit group a lane.
  __m256i const pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi16(0x0120));
  __m256i const quads = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00010400));
  __m256i const groups =
      _mm256_or_si256(_mm256_slli_epi64(_mm256_and_si256(quads, _mm256_set1_epi64x(0xFFFFF)), 20),
                      _mm256_srli_epi64(quads, 32));
  __m256i const ordered = _mm256_shuffle_epi8(
      groups, _mm256_setr_epi8(4, 3, 2, 1, 0, 12, 11, 10, 9, 8, -1, -1, -1, -1, -1, -1, 4, 3, 2, 1,
                               0, 12, 11, 10, 9, 8, -1, -1, -1, -1, -1, -1));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(ordered));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 10), _mm256_extracti128_si256(ordered, 1));
  return true;
}

}  // namespace

std::string base64_encode(void const* data, size_t size, ETransformPadding padding) {
  auto const* bytes = static_cast<unsigned char const*>(data);
  std::string text((size + 2) / 3 * 4, '\0');
  size_t i = 0;
  size_t o = 0;
  // The block reads four bytes on either side of its 24, so it starts at 4 and stops short.
  if (impl::has_avx2() && size >= 32) {
    auto* out = text.data();
    // The first six bytes by the template, so that the block may read behind its start.
    base64_encode(bytes, bytes + 6, out);
    i = 6;
    o = 8;
    for (; i + 28 <= size; i += 24, o += 32) encode_block64(bytes + i, out + o);
  }
  char* end = base64_encode(bytes + i, bytes + size, text.data() + o, padding);
  text.resize(static_cast<size_t>(end - text.data()));
  return text;
}

std::vector<uint8_t> base64_decode(std::string_view text) {
  std::vector<uint8_t> bytes(text.size() / 4 * 3 + 3 + 8);
  size_t i = 0;
  size_t o = 0;
  if (impl::has_avx2()) {
    // Stops before the last group, which may hold padding, and at any other character.
    for (; i + 36 <= text.size() && decode_block64(text.data() + i, bytes.data() + o);
         i += 32, o += 24) {
    }
  }
  auto* start = reinterpret_cast<char*>(bytes.data());
  char* end = base64_decode(text.begin() + static_cast<long>(i), text.end(), start + o);
  bytes.resize(static_cast<size_t>(end - start));
  return bytes;
}

std::string base32_encode(void const* data, size_t size, ETransformPadding padding) {
  auto const* bytes = static_cast<unsigned char const*>(data);
  std::string text((size + 4) / 5 * 8, '\0');
  size_t i = 0;
  size_t o = 0;
  if (impl::has_avx2()) {
    for (; i + 32 <= size; i += 20, o += 32) encode_block32(bytes + i, text.data() + o);
  }
  char* end = base32_encode(bytes + i, bytes + size, text.data() + o, padding);
  text.resize(static_cast<size_t>(end - text.data()));
  return text;
}

std::vector<uint8_t> base32_decode(std::string_view text) {
  std::vector<uint8_t> bytes(text.size() / 8 * 5 + 5 + 16);
  size_t i = 0;
  size_t o = 0;
  if (impl::has_avx2()) {
    for (; i + 32 <= text.size() && decode_block32(text.data() + i, bytes.data() + o);
         i += 32, o += 20) {
    }
  }
  auto* start = reinterpret_cast<char*>(bytes.data());
  char* end = base32_decode(text.begin() + static_cast<long>(i), text.end(), start + o);
  bytes.resize(static_cast<size_t>(end - start));
  return bytes;
}

std::string hex_encode(void const* data, size_t size) {
  auto const* bytes = static_cast<unsigned char const*>(data);
  std::string text(2 * size, '\0');
  size_t i = 0;
  if (impl::has_avx2()) {
    for (; i + 16 <= size; i += 16) encode_block16(bytes + i, text.data() + 2 * i);
  }
  hex_encode(bytes + i, bytes + size, text.data() + 2 * i);
  return text;
}

std::vector<uint8_t> hex_decode(std::string_view text) {
  std::vector<uint8_t> bytes(text.size() / 2 + 16);
  size_t i = 0;
  if (impl::has_avx2()) {
    for (; i + 32 <= text.size() && decode_block16(text.data() + i, bytes.data() + i / 2);
         i += 32) {
    }
  }
  auto* start = reinterpret_cast<char*>(bytes.data());
  char* end = hex_decode(text.begin() + static_cast<long>(i), text.end(), start + i / 2);
  bytes.resize(static_cast<size_t>(end - start));
  return bytes;
}

}  // namespace tqcore
