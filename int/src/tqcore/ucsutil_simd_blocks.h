// Validation of UTF-8 by nibble lookups, 32 bytes at a time (Keiser and Lemire, "Validating
// UTF-8 in less than one instruction per byte"). It checks standard UTF-8: at most four bytes,
// at most U+10FFFF, no surrogates, no overlong forms. All such text is valid here too, except
// U+FEFF, which is checked for beside it. Five- and six-byte forms and scalars beyond U+10FFFF
// stop the vector walk and go to the scalar rules.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace tqcore {
namespace impl {
namespace simd_blocks {

constexpr uint8_t kTooShort = 1 << 0;
constexpr uint8_t kTooLong = 1 << 1;
constexpr uint8_t kOverlong3 = 1 << 2;
constexpr uint8_t kTooLarge = 1 << 3;
constexpr uint8_t kSurrogate = 1 << 4;
constexpr uint8_t kOverlong2 = 1 << 5;
constexpr uint8_t kTooLarge1000 = 1 << 6;
constexpr uint8_t kOverlong4 = 1 << 6;
constexpr uint8_t kTwoConts = 1 << 7;
constexpr uint8_t kCarry = kTooShort | kTooLong | kTwoConts;

// A 16-entry lookup table, repeated in both lanes for _mm256_shuffle_epi8.
template <class... Entry>
[[gnu::target("avx2")]] inline __m256i table(Entry... entries) {
  static_assert(sizeof...(Entry) == 16, "one entry a nibble");
  return _mm256_setr_epi8(static_cast<char>(entries)..., static_cast<char>(entries)...);
}

[[gnu::target("avx2")]] inline __m256i high_nibbles(__m256i v) {
  return _mm256_and_si256(_mm256_srli_epi16(v, 4), _mm256_set1_epi8(0x0F));
}

// The bytes of `input` moved right by N, with the last N bytes of `previous` in front.
template <int N>
[[gnu::target("avx2")]] inline __m256i preceding(__m256i input, __m256i previous) {
  return _mm256_alignr_epi8(input, _mm256_permute2x128_si256(previous, input, 0x21), 16 - N);
}

// Nonzero lanes mark the last byte of U+FEFF after a 0xEF lead marked in `lead_ef`; with
// `for_conversion`, of U+FFFE and U+FFFF as well.
[[gnu::target("avx2")]] inline __m256i refused_forms(__m256i input, __m256i prev1, __m256i lead_ef,
                                                     bool for_conversion) {
  __m256i const last_bf = _mm256_cmpeq_epi8(input, _mm256_set1_epi8(static_cast<char>(0xBF)));
  __m256i refused = _mm256_and_si256(
      _mm256_and_si256(lead_ef,
                       _mm256_cmpeq_epi8(prev1, _mm256_set1_epi8(static_cast<char>(0xBB)))),
      last_bf);
  if (!for_conversion) return refused;
  __m256i const last_be_or_bf =
      _mm256_or_si256(last_bf, _mm256_cmpeq_epi8(input, _mm256_set1_epi8(static_cast<char>(0xBE))));
  return _mm256_or_si256(
      refused, _mm256_and_si256(
                   _mm256_and_si256(lead_ef, _mm256_cmpeq_epi8(
                                                 prev1, _mm256_set1_epi8(static_cast<char>(0xBF)))),
                   last_be_or_bf));
}

// Nonzero lanes mark a byte at which a standard UTF-8 rule or the U+FEFF rule breaks; with
// `for_conversion`, U+FFFE and U+FFFF as well.
[[gnu::target("avx2")]] inline __m256i block_errors(__m256i input, __m256i previous,
                                                    bool for_conversion) {
  __m256i const prev1 = preceding<1>(input, previous);
  __m256i const byte_1_high = _mm256_shuffle_epi8(
      table(kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong,
            kTwoConts, kTwoConts, kTwoConts, kTwoConts, kTooShort | kOverlong2, kTooShort,
            kTooShort | kOverlong3 | kSurrogate,
            kTooShort | kTooLarge | kTooLarge1000 | kOverlong4),
      high_nibbles(prev1));
  constexpr uint8_t kLarge = kCarry | kTooLarge | kTooLarge1000;
  __m256i const byte_1_low = _mm256_shuffle_epi8(
      table(kCarry | kOverlong3 | kOverlong2 | kOverlong4, kCarry | kOverlong2, kCarry, kCarry,
            kCarry | kTooLarge, kLarge, kLarge, kLarge, kLarge, kLarge, kLarge, kLarge, kLarge,
            kLarge | kSurrogate, kLarge, kLarge),
      _mm256_and_si256(prev1, _mm256_set1_epi8(0x0F)));
  constexpr uint8_t kCont = kTooLong | kOverlong2 | kTwoConts;
  __m256i const byte_2_high = _mm256_shuffle_epi8(
      table(kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort,
            kCont | kOverlong3 | kTooLarge1000 | kOverlong4, kCont | kOverlong3 | kTooLarge,
            kCont | kSurrogate | kTooLarge, kCont | kSurrogate | kTooLarge, kTooShort, kTooShort,
            kTooShort, kTooShort),
      high_nibbles(input));
  __m256i const special = _mm256_and_si256(_mm256_and_si256(byte_1_high, byte_1_low), byte_2_high);
  // Third and fourth bytes of a sequence are continuations that the lookups see as errors.
  __m256i const prev2 = preceding<2>(input, previous);
  __m256i const prev3 = preceding<3>(input, previous);
  __m256i const third = _mm256_subs_epu8(prev2, _mm256_set1_epi8(static_cast<char>(0xE0 - 0x80)));
  __m256i const fourth = _mm256_subs_epu8(prev3, _mm256_set1_epi8(static_cast<char>(0xF0 - 0x80)));
  __m256i const must_continue =
      _mm256_and_si256(_mm256_or_si256(third, fourth), _mm256_set1_epi8(static_cast<char>(0x80)));
  __m256i const errors = _mm256_xor_si256(must_continue, special);
  // Text without a 0xEF lead, which is most text, has none of the refused forms.
  __m256i const lead_ef = _mm256_cmpeq_epi8(prev2, _mm256_set1_epi8(static_cast<char>(0xEF)));
  if (_mm256_testz_si256(lead_ef, lead_ef)) return errors;
  return _mm256_or_si256(errors, refused_forms(input, prev1, lead_ef, for_conversion));
}

// Nonzero where a sequence begun in the last three bytes needs bytes of the next block.
[[gnu::target("avx2")]] inline bool ends_incomplete(__m256i input) {
  __m256i const limits =
      _mm256_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                       -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, static_cast<char>(0xF0 - 1),
                       static_cast<char>(0xE0 - 1), static_cast<char>(0xC0 - 1));
  return !_mm256_testz_si256(_mm256_subs_epu8(input, limits), _mm256_subs_epu8(input, limits));
}

// Bytes `start` to `size` of a text of at least sixteen bytes (32 of them at most), then
// zero bytes: two loads that stay inside the text, and a shuffle that moves the last one into
// place. No copy to the stack, which costs a short text more than the check itself.
[[gnu::target("avx2")]] inline __m256i padded_tail(unsigned char const* p, size_t start,
                                                   size_t size) {
  alignas(16) static constexpr uint8_t kShifts[32] = {
      0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,
      11,   12,   13,   14,   15,   0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
      0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};
  size_t const left = size - start;
  __m128i const last = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + size - 16));
  if (left >= 16) {
    __m128i const rest = _mm_shuffle_epi8(
        last, _mm_loadu_si128(reinterpret_cast<__m128i const*>(kShifts + (32 - left))));
    return _mm256_set_m128i(rest, _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + start)));
  }
  __m128i const all = _mm_shuffle_epi8(
      last, _mm_loadu_si128(reinterpret_cast<__m128i const*>(kShifts + (16 - left))));
  return _mm256_set_m128i(_mm_setzero_si128(), all);
}

// Copies up to 128 bytes in at most eight moves of fixed size, which a call to memcpy would
// cost more than for the few units of a short text.
inline void copy_short(void* to, void const* from, size_t bytes) {
  auto* d = static_cast<unsigned char*>(to);
  auto const* s = static_cast<unsigned char const*>(from);
  if (bytes >= 16) {
    for (size_t k = 0; k + 16 < bytes; k += 16) __builtin_memcpy(d + k, s + k, 16);
    __builtin_memcpy(d + bytes - 16, s + bytes - 16, 16);
  } else if (bytes >= 8) {
    __builtin_memcpy(d, s, 8);
    __builtin_memcpy(d + bytes - 8, s + bytes - 8, 8);
  } else if (bytes >= 4) {
    __builtin_memcpy(d, s, 4);
    __builtin_memcpy(d + bytes - 4, s + bytes - 4, 4);
  } else if (bytes >= 2) {
    __builtin_memcpy(d, s, 2);
    __builtin_memcpy(d + bytes - 2, s + bytes - 2, 2);
  } else if (bytes == 1) {
    *d = *s;
  }
}

}  // namespace simd_blocks
}  // namespace impl
}  // namespace tqcore
