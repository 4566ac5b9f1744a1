// UTF-8 to 16- or 32-bit units with AVX2, on text the vector validator has vouched for. Each
// block of 64 bytes is read as four fixed windows of sixteen: every byte gets the value of the
// character that would begin there, and a shuffle keeps the lanes where one does begin. The
// windows do not depend on each other, so nothing waits on where the last character ended.
// A four-byte form keeps two lanes in UTF-16, its lead and its second byte, which become the
// two halves of the surrogate pair.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "ucsutil_simd.h"
#include "ucsutil_simd_blocks.h"

namespace tqcore {
namespace impl {
namespace {
using namespace simd_blocks;  // NOLINT(google-build-using-namespace)

// Text is validated a piece at a time, so that the conversion reads it while it is still in the
// first-level cache.
constexpr size_t kPiece = 4 << 10;
// A block is 64 bytes, and the characters that begin in it are read up to two bytes past it.
constexpr size_t kBlockRead = 66;

// For each set of kept lanes among eight 16-bit lanes, the shuffle that packs them to the
// front, in order.
struct CompactTable {
  alignas(16) uint8_t patterns[256][16] = {};
  constexpr CompactTable() {
    for (int mask = 0; mask < 256; ++mask) {
      size_t out = 0;
      for (int lane = 0; lane < 8; ++lane) {
        if ((mask & (1 << lane)) == 0) continue;
        patterns[mask][2 * out] = static_cast<uint8_t>(2 * lane);
        patterns[mask][2 * out + 1] = static_cast<uint8_t>(2 * lane + 1);
        ++out;
      }
      for (; out < 8; ++out) patterns[mask][2 * out] = patterns[mask][2 * out + 1] = 0x80;
    }
  }
};

constexpr CompactTable kCompact;

// Bit k set where byte k of `bytes` is no continuation byte (or, for `from`, at least `from`).
[[gnu::target("avx2")]] inline uint32_t lead_mask(__m256i bytes) {
  return ~static_cast<uint32_t>(
      _mm256_movemask_epi8(_mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(0xC0)), bytes)));
}

[[gnu::target("avx2")]] inline uint32_t four_byte_lead_mask(__m256i bytes) {
  __m256i const below = _mm256_cmpeq_epi8(
      _mm256_subs_epu8(bytes, _mm256_set1_epi8(static_cast<char>(0xEF))), _mm256_setzero_si256());
  return ~static_cast<uint32_t>(_mm256_movemask_epi8(below));
}

// All-ones in the 16-bit lanes whose bit is set in `mask`.
[[gnu::target("avx2")]] inline __m256i lanes_of(unsigned mask) {
  __m256i const bits = _mm256_setr_epi16(1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1024, 2048, 4096,
                                         8192, 16384, static_cast<short>(0x8000));
  return _mm256_cmpeq_epi16(_mm256_and_si256(_mm256_set1_epi16(static_cast<short>(mask)), bits),
                            bits);
}

// The value of the character that begins at each of sixteen bytes, given with the bytes one and
// two places on,
// as one UTF-16 unit; with `pairs`, a four-byte lead gets its high surrogate and the lanes in
// `low_lanes` (second bytes of four-byte forms) the low one.
template <bool kPairs>
[[gnu::target("avx2")]] inline __m256i window_values(__m128i bytes, __m128i next, __m128i after,
                                                     unsigned low_lanes) {
  __m256i const b0 = _mm256_cvtepu8_epi16(bytes);
  __m256i const mask6 = _mm256_set1_epi16(0x3F);
  __m256i const b1 = _mm256_and_si256(_mm256_cvtepu8_epi16(next), mask6);
  __m256i const b2 = _mm256_and_si256(_mm256_cvtepu8_epi16(after), mask6);
  __m256i const two =
      _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(b0, _mm256_set1_epi16(0x1F)), 6), b1);
  __m256i const three =
      _mm256_or_si256(_mm256_or_si256(_mm256_slli_epi16(b0, 12), _mm256_slli_epi16(b1, 6)), b2);
  __m256i units = _mm256_blendv_epi8(b0, two, _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xBF)));
  units = _mm256_blendv_epi8(units, three, _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xDF)));
  if (!kPairs) return units;
  // From a four-byte lead, `three` holds the top ten bits of the scalar above 0x10000 (plus 0x40):
  // the high surrogate. From the second byte, its low ten bits are those of the low surrogate.
  __m256i const high =
      _mm256_add_epi16(_mm256_srli_epi16(three, 4), _mm256_set1_epi16(static_cast<short>(0xD7C0)));
  __m256i const low = _mm256_or_si256(_mm256_and_si256(three, _mm256_set1_epi16(0x3FF)),
                                      _mm256_set1_epi16(static_cast<short>(0xDC00)));
  units = _mm256_blendv_epi8(units, high, _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xEF)));
  return _mm256_blendv_epi8(units, low, lanes_of(low_lanes));
}

// The same for the sixteen bytes at `p`, reading eighteen.
template <bool kPairs>
[[gnu::target("avx2")]] inline __m256i window_values(unsigned char const* p, unsigned low_lanes) {
  return window_values<kPairs>(_mm_loadu_si128(reinterpret_cast<__m128i const*>(p)),
                               _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + 1)),
                               _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + 2)), low_lanes);
}

// Packs the kept lanes of `units` to `out`; returns how many. Writes sixteen units at most.
template <class Unit>
[[gnu::target("avx2")]] inline size_t store_kept(__m256i units, unsigned keep, Unit* out) {
  unsigned const low = keep & 0xFF;
  unsigned const high = (keep >> 8) & 0xFF;
  __m128i const first =
      _mm_shuffle_epi8(_mm256_castsi256_si128(units),
                       _mm_load_si128(reinterpret_cast<__m128i const*>(kCompact.patterns[low])));
  __m128i const second =
      _mm_shuffle_epi8(_mm256_extracti128_si256(units, 1),
                       _mm_load_si128(reinterpret_cast<__m128i const*>(kCompact.patterns[high])));
  size_t const first_count = static_cast<size_t>(__builtin_popcount(low));
  if constexpr (sizeof(Unit) == 2) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), first);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + first_count), second);
  } else {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_cvtepu16_epi32(first));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + first_count),
                        _mm256_cvtepu16_epi32(second));
  }
  return first_count + static_cast<size_t>(__builtin_popcount(high));
}

// The scalar of the valid four-byte form at `p`.
inline unsigned int four_byte_scalar(unsigned char const* p) {
  return ((p[0] & 0x07u) << 18) | ((p[1] & 0x3Fu) << 12) | ((p[2] & 0x3Fu) << 6) | (p[3] & 0x3Fu);
}

// The characters that begin in a block whose leads are `leads`, one at a time: for 32-bit
// units when a four-byte form is among them.
template <class Unit>
inline size_t block_by_character(unsigned char const* p, uint64_t leads, Unit* out) {
  size_t o = 0;
  for (; leads != 0; leads &= leads - 1) {
    unsigned char const* c = p + __builtin_ctzll(leads);
    unsigned int const b0 = c[0];
    if (b0 < 0x80) {
      out[o++] = static_cast<Unit>(b0);
    } else if (b0 < 0xE0) {
      out[o++] = static_cast<Unit>(((b0 & 0x1Fu) << 6) | (c[1] & 0x3Fu));
    } else if (b0 < 0xF0) {
      out[o++] = static_cast<Unit>(((b0 & 0x0Fu) << 12) | ((c[1] & 0x3Fu) << 6) | (c[2] & 0x3Fu));
    } else {
      out[o++] = static_cast<Unit>(four_byte_scalar(c));
    }
  }
  return o;
}

// The characters that begin in the first `windows` sixteen-byte windows of a block, whose
// leads and four-byte leads are given; `carry` is 1 when the block before ended on a four-byte
// lead, and is left so for the next. Returns the units written (64 and 16 more stored at most).
template <class Unit>
[[gnu::target("avx2")]] inline size_t block_units(unsigned char const* p, uint64_t leads,
                                                  uint64_t fours, size_t windows, unsigned* carry,
                                                  Unit* out) {
  size_t o = 0;
  if ((fours | *carry) == 0) {
    for (size_t w = 0; w < windows; ++w) {
      o += store_kept(window_values<false>(p + 16 * w, 0),
                      static_cast<unsigned>(leads >> (16 * w)) & 0xFFFF, out + o);
    }
  } else if constexpr (sizeof(Unit) == 2) {
    uint64_t const low_lanes = fours << 1 | *carry;
    uint64_t const keep = leads | low_lanes;
    for (size_t w = 0; w < windows; ++w) {
      o += store_kept(window_values<true>(p + 16 * w, static_cast<unsigned>(low_lanes >> (16 * w))),
                      static_cast<unsigned>(keep >> (16 * w)) & 0xFFFF, out + o);
    }
    *carry = static_cast<unsigned>(fours >> 63);
    return o;
  } else {
    o = block_by_character(p, leads, out);
  }
  *carry = 0;
  return o;
}

// Converts valid text, from a character start, in blocks of 64 bytes (reading two more) while
// the destination has room for 80 units; returns the progress at a character start.
template <class Unit>
[[gnu::target("avx2")]] ConversionProgress convert_valid(unsigned char const* p, size_t size,
                                                         Unit* out, size_t capacity) {
  size_t i = 0;
  size_t o = 0;
  unsigned carry = 0;  // 1 when the last block ended on a four-byte lead
  while (size - i >= kBlockRead && capacity - o >= 80) {
    __m256i const first = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i));
    __m256i const second = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i + 32));
    if (_mm256_movemask_epi8(_mm256_or_si256(first, second)) == 0) {
      __m128i const chunks[4] = {_mm256_castsi256_si128(first), _mm256_extracti128_si256(first, 1),
                                 _mm256_castsi256_si128(second),
                                 _mm256_extracti128_si256(second, 1)};
      for (int w = 0; w < 4; ++w) {
        if constexpr (sizeof(Unit) == 2) {
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + o + 16 * w),
                              _mm256_cvtepu8_epi16(chunks[w]));
        } else {
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + o + 16 * w),
                              _mm256_cvtepu8_epi32(chunks[w]));
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + o + 16 * w + 8),
                              _mm256_cvtepu8_epi32(_mm_srli_si128(chunks[w], 8)));
        }
      }
      i += 64;
      o += 64;
      continue;
    }
    uint64_t const leads = lead_mask(first) | static_cast<uint64_t>(lead_mask(second)) << 32;
    uint64_t const fours =
        four_byte_lead_mask(first) | static_cast<uint64_t>(four_byte_lead_mask(second)) << 32;
    o += block_units(p + i, leads, fours, 4, &carry, out + o);
    i += 64;
  }
  if constexpr (sizeof(Unit) == 2) {
    if (carry != 0) {  // the pair's second half belongs to the next block's first lane
      out[o++] = static_cast<Unit>((four_byte_scalar(p + i - 1) & 0x3FF) | 0xDC00);
    }
  }
  while (i < size && (p[i] & 0xC0) == 0x80) ++i;  // bytes of a character already written
  return ConversionProgress{i, o};
}

template <class Unit>
[[gnu::target("avx2")]] ConversionProgress convert_avx2(unsigned char const* p, size_t size,
                                                        Unit* out, size_t capacity) {
  size_t i = 0;
  size_t o = 0;
  while (size - i >= kBlockRead) {
    size_t const piece = size - i < kPiece ? size - i : kPiece;
    size_t const valid = valid_prefix_vector(reinterpret_cast<char const*>(p + i), piece, true);
    ConversionProgress const done = convert_valid(p + i, valid, out + o, capacity - o);
    if (done.consumed == 0) break;
    i += done.consumed;
    o += done.written;
  }
  return ConversionProgress{i, o};
}

// The two windows of a text of at most 32 bytes held in `low` and `high`.
template <bool kPairs, class Unit>
[[gnu::target("avx2")]] inline size_t short_windows(__m128i low, __m128i high, uint64_t leads,
                                                    uint64_t low_lanes, Unit* out) {
  __m128i const zero = _mm_setzero_si128();
  uint64_t const keep = leads | low_lanes;
  size_t const first = store_kept(
      window_values<kPairs>(low, _mm_alignr_epi8(high, low, 1), _mm_alignr_epi8(high, low, 2),
                            static_cast<unsigned>(low_lanes)),
      static_cast<unsigned>(keep) & 0xFFFF, out);
  return first + store_kept(window_values<kPairs>(high, _mm_alignr_epi8(zero, high, 1),
                                                  _mm_alignr_epi8(zero, high, 2),
                                                  static_cast<unsigned>(low_lanes >> 16)),
                            static_cast<unsigned>(keep >> 16) & 0xFFFF, out + first);
}

// A whole valid text of sixteen to 32 bytes, from registers: no loop, so no branch to mispredict
// where the script changes, which is what a short text costs a byte-by-byte walk. Writes nothing
// unless all of it fits.
template <class Unit>
[[gnu::target("avx2")]] ConversionProgress convert_short(unsigned char const* p, size_t size,
                                                         Unit* out, size_t capacity) {
  __m256i const text = padded_tail(p, 0, size);
  __m256i const errors = block_errors(text, _mm256_setzero_si256(), true);
  // A text of 32 bytes has no padding to meet a sequence its end cuts short.
  if (!_mm256_testz_si256(errors, errors) || ends_incomplete(text)) return ConversionProgress{0, 0};
  uint64_t const leads = lead_mask(text) & ((uint64_t{1} << size) - 1);
  uint64_t const fours = four_byte_lead_mask(text);
  __m128i const low = _mm256_castsi256_si128(text);
  __m128i const high = _mm256_extracti128_si256(text, 1);
  Unit units[48];
  size_t written = 0;
  if (fours == 0 || sizeof(Unit) == 2) {
    written = fours == 0 ? short_windows<false>(low, high, leads, 0, units)
                         : short_windows<true>(low, high, leads, fours << 1, units);
  } else {
    alignas(32) unsigned char padded[32];
    _mm256_store_si256(reinterpret_cast<__m256i*>(padded), text);
    written = block_by_character(padded, leads, units);
  }
  if (written > capacity) return ConversionProgress{0, 0};
  copy_short(out, units, written * sizeof(Unit));
  return ConversionProgress{size, written};
}

}  // namespace

template <class Unit>
ConversionProgress utf8_to_units_prefix(char const* text, size_t size, Unit* out,
                                        size_t capacity) noexcept {
  if (!has_avx2() || size < 16) return ConversionProgress{0, 0};
  auto const* p = reinterpret_cast<unsigned char const*>(text);
  if (size <= 32) return convert_short(p, size, out, capacity);
  // A text too short for one block would pay for validation and convert nothing.
  if (size < kBlockRead) return ConversionProgress{0, 0};
  return convert_avx2(reinterpret_cast<unsigned char const*>(text), size, out, capacity);
}

template ConversionProgress utf8_to_units_prefix(char const*, size_t, unsigned short*,
                                                 size_t) noexcept;
template ConversionProgress utf8_to_units_prefix(char const*, size_t, unsigned int*,
                                                 size_t) noexcept;
template ConversionProgress utf8_to_units_prefix(char const*, size_t, wchar_t*, size_t) noexcept;

}  // namespace impl
}  // namespace tqcore
