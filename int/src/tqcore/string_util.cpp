#include <tqcore/string_util.h>

#include <immintrin.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "ucsutil_simd.h"

namespace tqcore {

std::string const g_emptyString;
std::wstring const g_emptyWString;

namespace {

constexpr size_t kNpos = static_cast<size_t>(-1);
constexpr uint64_t kOnes = 0x0101010101010101ULL;
constexpr uint64_t kHighBits = 0x8080808080808080ULL;

size_t measured(char const* text, size_t size) { return size == kNpos ? std::strlen(text) : size; }

char fold_lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
char fold_upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

// Lower-cases the ASCII letters of eight bytes at once; every other byte stays as it is.
uint64_t fold_lower_word(uint64_t word) {
  uint64_t const seven_bits = word & ~kHighBits;
  uint64_t const at_least_a = seven_bits + (0x80 - 'A') * kOnes;
  uint64_t const above_z = seven_bits + (0x80 - 'Z' - 1) * kOnes;
  uint64_t const is_upper = (at_least_a ^ above_z) & ~word & kHighBits;
  return word | (is_upper >> 2);
}

uint64_t load_word(char const* p) {
  uint64_t word;
  std::memcpy(&word, p, sizeof(word));
  return word;
}

// Lower-cases the ASCII letters of sixteen bytes: 'A'..'Z' are the bytes that, moved down by
// 'A' + 128, compare (signed) below -128 + 26.
inline __m128i fold_lower_block(__m128i block) {
  __m128i const shifted = _mm_sub_epi8(block, _mm_set1_epi8(static_cast<char>('A' + 128)));
  __m128i const is_upper = _mm_cmplt_epi8(shifted, _mm_set1_epi8(static_cast<char>(-128 + 26)));
  return _mm_or_si128(block, _mm_and_si128(is_upper, _mm_set1_epi8(0x20)));
}

// The index of the first byte at which the two texts differ after folding, or `size`.
// The first folded difference within the sixteen bytes at `at`, or 16.
[[gnu::always_inline]] inline size_t block_difference(char const* a, char const* b, size_t at) {
  __m128i const wa = _mm_loadu_si128(reinterpret_cast<__m128i const*>(a + at));
  __m128i const wb = _mm_loadu_si128(reinterpret_cast<__m128i const*>(b + at));
  int const equal = _mm_movemask_epi8(_mm_cmpeq_epi8(fold_lower_block(wa), fold_lower_block(wb)));
  return equal == 0xFFFF ? 16 : static_cast<size_t>(__builtin_ctz(~equal & 0xFFFF));
}

// The same over thirty-two bytes, for processors that have AVX2.
[[gnu::target("avx2")]] inline __m256i fold_lower_block(__m256i block) {
  __m256i const shifted = _mm256_sub_epi8(block, _mm256_set1_epi8(static_cast<char>('A' + 128)));
  __m256i const is_upper =
      _mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(-128 + 26)), shifted);
  return _mm256_or_si256(block, _mm256_and_si256(is_upper, _mm256_set1_epi8(0x20)));
}

[[gnu::target("avx2"), gnu::always_inline]] inline size_t wide_block_difference(char const* a,
                                                                                char const* b,
                                                                                size_t at) {
  __m256i const wa = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(a + at));
  __m256i const wb = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(b + at));
  unsigned const equal = static_cast<unsigned>(
      _mm256_movemask_epi8(_mm256_cmpeq_epi8(fold_lower_block(wa), fold_lower_block(wb))));
  return equal == 0xFFFFFFFFu ? 32 : static_cast<size_t>(__builtin_ctz(~equal));
}

// Below sixteen bytes: words, then bytes.
[[gnu::always_inline]] inline size_t short_difference(char const* a, char const* b, size_t size) {
  size_t i = 0;
  for (; i + sizeof(uint64_t) <= size; i += sizeof(uint64_t)) {
    uint64_t const wa = load_word(a + i);
    uint64_t const wb = load_word(b + i);
    if (wa != wb && fold_lower_word(wa) != fold_lower_word(wb)) break;
  }
  for (; i < size; ++i) {
    if (a[i] != b[i] && fold_lower(a[i]) != fold_lower(b[i])) return i;
  }
  return size;
}

// The index of the first byte at which the two texts differ after folding, or `size`. Blocks
// of sixteen bytes; the tail is one block that overlaps the last, whose first bytes are equal.
[[gnu::always_inline]] inline size_t difference_sse2(char const* a, char const* b, size_t size) {
  if (size < 16) return short_difference(a, b, size);
  size_t i = 0;
  for (; i + 16 <= size; i += 16) {
    size_t at = block_difference(a, b, i);
    if (at != 16) return i + at;
  }
  if (i == size) return size;
  size_t at = block_difference(a, b, size - 16);
  return at == 16 ? size : size - 16 + at;
}

[[gnu::target("avx2"), gnu::always_inline]] inline size_t difference_avx2(char const* a,
                                                                          char const* b,
                                                                          size_t size) {
  if (size < 32) return difference_sse2(a, b, size);
  size_t i = 0;
  for (; i + 32 <= size; i += 32) {
    size_t at = wide_block_difference(a, b, i);
    if (at != 32) return i + at;
  }
  if (i == size) return size;
  size_t at = wide_block_difference(a, b, size - 32);
  return at == 32 ? size : size - 32 + at;
}

[[gnu::always_inline]] inline int compare_known(char const* a, size_t a_size, char const* b,
                                                size_t b_size, size_t at) {
  if (at < std::min(a_size, b_size)) {
    return static_cast<signed char>(fold_lower(a[at])) -
           static_cast<signed char>(fold_lower(b[at]));
  }
  return static_cast<int>(a_size - b_size);
}

// Terminated texts are measured first, away from the hot path.
[[gnu::noinline]] int compare_terminated(char const* a, size_t a_size, char const* b,
                                         size_t b_size) {
  return compare_nocase_ascii(a, measured(a, a_size), b, measured(b, b_size));
}

int compare_nocase_sse2(char const* a, size_t a_size, char const* b, size_t b_size) {
  if (a_size == kNpos || b_size == kNpos) return compare_terminated(a, a_size, b, b_size);
  return compare_known(a, a_size, b, b_size, difference_sse2(a, b, std::min(a_size, b_size)));
}

[[gnu::target("avx2")]] int compare_nocase_avx2(char const* a, size_t a_size, char const* b,
                                                size_t b_size) {
  if (a_size == kNpos || b_size == kNpos) return compare_terminated(a, a_size, b, b_size);
  return compare_known(a, a_size, b, b_size, difference_avx2(a, b, std::min(a_size, b_size)));
}

bool equal_nocase_sse2(char const* a, size_t a_size, char const* b, size_t b_size) {
  a_size = measured(a, a_size);
  b_size = measured(b, b_size);
  return a_size == b_size && difference_sse2(a, b, a_size) == a_size;
}

[[gnu::target("avx2")]] bool equal_nocase_avx2(char const* a, size_t a_size, char const* b,
                                               size_t b_size) {
  a_size = measured(a, a_size);
  b_size = measured(b, b_size);
  return a_size == b_size && difference_avx2(a, b, a_size) == a_size;
}

}  // namespace
}  // namespace tqcore

namespace tqcore {
namespace {

template <char (*Fold)(char)>
size_t folded_hash(char const* text, size_t size) {
  size = measured(text, size);
  uint32_t h = 0;
  for (size_t i = 0; i < size; ++i) {
    h = h * 5 +
        static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(Fold(text[i]))));
  }
  return h;
}

// Below this size the conversion runs in a stack buffer and the result is assigned once.
constexpr size_t kStackConversion = 4000;

template <char (*Fold)(char)>
std::string folded_copy(char const* text, size_t size) {
  size = measured(text, size);
  if (size < kStackConversion) {
    char buffer[kStackConversion];
    std::transform(text, text + size, buffer, Fold);
    return std::string(buffer, size);
  }
  std::string result(text, size);
  std::transform(result.begin(), result.end(), result.begin(), Fold);
  return result;
}

}  // namespace

bool string_equal_nocase_ascii(char const* a, size_t a_size, char const* b, size_t b_size) {
  return impl::has_avx2() ? equal_nocase_avx2(a, a_size, b, b_size)
                          : equal_nocase_sse2(a, a_size, b, b_size);
}

int compare_nocase_ascii(char const* a, size_t a_size, char const* b, size_t b_size) {
  return impl::has_avx2() ? compare_nocase_avx2(a, a_size, b, b_size)
                          : compare_nocase_sse2(a, a_size, b, b_size);
}

size_t string_hash_lowercase_ascii(char const* text, size_t size) {
  return folded_hash<fold_lower>(text, size);
}

size_t string_hash_uppercase_ascii(char const* text, size_t size) {
  return folded_hash<fold_upper>(text, size);
}

std::string to_lower_ascii(char const* text, size_t size) {
  return folded_copy<fold_lower>(text, size);
}

std::string to_upper_ascii(char const* text, size_t size) {
  return folded_copy<fold_upper>(text, size);
}

void to_lower_ascii_inplace(std::string& text) {
  std::transform(text.begin(), text.end(), text.begin(), fold_lower);
}

void to_upper_ascii_inplace(std::string& text) {
  std::transform(text.begin(), text.end(), text.begin(), fold_upper);
}

}  // namespace tqcore
