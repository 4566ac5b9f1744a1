// The vector validator's walk over a text, and the vector path's one choice: whether the
// processor has AVX2.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "ucsutil_simd.h"
#include "ucsutil_simd_blocks.h"

namespace tqcore {
namespace impl {
namespace {
using namespace simd_blocks;  // NOLINT(google-build-using-namespace)

// The last sequence that starts before `stop` and reaches past it, or `stop`.
size_t sequence_start(unsigned char const* p, size_t stop) {
  for (size_t back = 1; back <= 3 && back <= stop; ++back) {
    unsigned char const b = p[stop - back];
    if (b < 0x80) return stop;
    if (b >= 0xC0) {
      size_t const length = b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF8 ? 4 : b < 0xFC ? 5 : 6;
      return length > back ? stop - back : stop;
    }
  }
  return stop;
}

[[gnu::target("avx2")]] size_t valid_prefix_avx2(unsigned char const* p, size_t size,
                                                 bool for_conversion) {
  __m256i previous = _mm256_setzero_si256();
  bool incomplete = false;
  size_t i = 0;
  // Two blocks a test while both are there; a failure is located block by block below.
  for (; i + 64 <= size; i += 64) {
    __m256i const first = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i));
    __m256i const second = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i + 32));
    if (_mm256_movemask_epi8(_mm256_or_si256(first, second)) == 0) {
      if (incomplete) break;
    } else {
      __m256i const errors = _mm256_or_si256(block_errors(first, previous, for_conversion),
                                             block_errors(second, first, for_conversion));
      if (!_mm256_testz_si256(errors, errors)) break;
      incomplete = ends_incomplete(second);
    }
    previous = second;
  }
  for (; i + 32 <= size; i += 32) {
    __m256i const input = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i));
    if (_mm256_movemask_epi8(input) == 0) {
      if (incomplete) break;  // a sequence cut short by ASCII
    } else {
      __m256i const errors = block_errors(input, previous, for_conversion);
      if (!_mm256_testz_si256(errors, errors)) break;
      incomplete = ends_incomplete(input);
    }
    previous = input;
  }
  if (i + 32 <= size || (incomplete && i == size)) return sequence_start(p, i);
  if (i == size) return size;
  // The tail, padded with zero bytes: a sequence cut by the end of the text meets ASCII there.
  __m256i const input = padded_tail(p, i, size);
  if (_mm256_movemask_epi8(input) == 0 && !incomplete) return size;
  __m256i const errors = block_errors(input, previous, for_conversion);
  return _mm256_testz_si256(errors, errors) ? size : sequence_start(p, i);
}

}  // namespace

// Read once while the library loads; until then every caller takes the scalar path.
bool const g_hasAvx2 = __builtin_cpu_supports("avx2");

namespace {

// Every byte that is no continuation begins one unit; a four-byte form needs a second in UTF-16.
[[gnu::target("avx2")]] size_t units_length_avx2(unsigned char const* p, size_t size, bool pairs) {
  size_t count = 0;
  size_t i = 0;
  for (; i + 32 <= size; i += 32) {
    __m256i const block = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i));
    unsigned const continuation = static_cast<unsigned>(
        _mm256_movemask_epi8(_mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(0xC0)), block)));
    count += 32 - static_cast<size_t>(__builtin_popcount(continuation));
    if (!pairs) continue;
    unsigned const four = static_cast<unsigned>(_mm256_movemask_epi8(
        _mm256_cmpeq_epi8(_mm256_subs_epu8(block, _mm256_set1_epi8(static_cast<char>(0xEF))),
                          _mm256_setzero_si256())));
    count += 32 - static_cast<size_t>(__builtin_popcount(four));
  }
  for (; i < size; ++i) count += (p[i] & 0xC0) != 0x80 ? (pairs && p[i] >= 0xF0 ? 2 : 1) : 0;
  return count;
}

}  // namespace

size_t valid_prefix_vector(char const* text, size_t size, bool for_conversion) noexcept {
  return valid_prefix_avx2(reinterpret_cast<unsigned char const*>(text), size, for_conversion);
}

size_t utf8_to_units_length_valid(char const* text, size_t size, size_t unit_size) noexcept {
  if (!has_avx2()) return 0;
  return units_length_avx2(reinterpret_cast<unsigned char const*>(text), size, unit_size == 2);
}

size_t utf8_valid_prefix(char const* text, size_t size, bool for_conversion) noexcept {
  if (!has_avx2() || size < 16) return 0;  // shorter texts are cheaper on the scalar walk
  return valid_prefix_avx2(reinterpret_cast<unsigned char const*>(text), size, for_conversion);
}

}  // namespace impl
}  // namespace tqcore
