// UTF-16 to UTF-8 with AVX2, sixteen units at a time, surrogate pairs included, until a unit
// the scalar rules must see (a lone surrogate, U+FEFF, U+FFFE, U+FFFF). Each unit becomes one
// to three bytes in its lane and a shuffle packs them together; texts of eight to 31 units are
// converted from one or two registers.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "ucsutil_simd.h"
#include "ucsutil_simd_blocks.h"

namespace tqcore {
namespace impl {
namespace {
using namespace simd_blocks;  // NOLINT(google-build-using-namespace)

// For four 32-bit lanes of up to three UTF-8 bytes each (two bits of length per lane, 0 to 3),
// the shuffle that packs the bytes of the lanes to the front, in order.
struct ExpandTable {
  alignas(16) uint8_t patterns[256][16] = {};
  uint8_t lengths[256] = {};
  constexpr ExpandTable() {
    for (int key = 0; key < 256; ++key) {
      int out = 0;
      for (int lane = 0; lane < 4; ++lane) {
        int const length = (key >> (2 * lane)) & 3;
        for (int k = 0; k < length; ++k) {
          patterns[key][out++] = static_cast<uint8_t>(4 * lane + k);
        }
      }
      lengths[key] = static_cast<uint8_t>(out);
      for (; out < 16; ++out) patterns[key][out] = 0x80;
    }
  }
};

constexpr ExpandTable kExpand;

// One bit per byte for units that need the scalar rules: surrogates, U+FEFF, U+FFFE, U+FFFF.
[[gnu::target("avx2")]] inline unsigned special_units(__m128i units) {
  __m128i const surrogate =
      _mm_cmpeq_epi16(_mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xF800))),
                      _mm_set1_epi16(static_cast<short>(0xD800)));
  __m128i const high_end =
      _mm_cmpeq_epi16(_mm_max_epu16(units, _mm_set1_epi16(static_cast<short>(0xFFFE))), units);
  __m128i const bom = _mm_cmpeq_epi16(units, _mm_set1_epi16(static_cast<short>(0xFEFF)));
  return static_cast<unsigned>(
      _mm_movemask_epi8(_mm_or_si128(_mm_or_si128(surrogate, high_end), bom)));
}

[[gnu::target("avx2")]] inline bool has_special_unit(__m128i units) {
  return special_units(units) != 0;
}

// The first `lanes` of sixteen units as UTF-8; returns the bytes written (at most 48, and up to
// 60 are stored). Each unit becomes a 32-bit word of one to three bytes, and a shuffle for each
// four words packs their bytes. Each surrogate of a pair the caller has checked gives two bytes
// of the four: a high one the first two, from its own bits, and a low one the last two, from its
// bits and the two low bits of the high one before it, which `previous` holds in the same lane.
[[gnu::target("avx2")]] inline size_t sixteen_units(__m256i units, __m256i previous, char* out,
                                                    unsigned lanes) {
  __m256i const six_bits = _mm256_set1_epi16(0x3F);
  __m256i const marker = _mm256_set1_epi16(0x80);
  __m256i const last = _mm256_or_si256(_mm256_and_si256(units, six_bits), marker);
  __m256i const middle =
      _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(units, 6), six_bits), marker);
  __m256i const two =
      _mm256_or_si256(_mm256_or_si256(_mm256_srli_epi16(units, 6), _mm256_set1_epi16(0xC0)),
                      _mm256_slli_epi16(last, 8));
  __m256i const three =
      _mm256_or_si256(_mm256_or_si256(_mm256_srli_epi16(units, 12), _mm256_set1_epi16(0xE0)),
                      _mm256_slli_epi16(middle, 8));
  __m256i const one_byte =
      _mm256_cmpeq_epi16(_mm256_and_si256(units, _mm256_set1_epi16(static_cast<short>(0xFF80))),
                         _mm256_setzero_si256());
  __m256i const short_form =
      _mm256_cmpeq_epi16(_mm256_and_si256(units, _mm256_set1_epi16(static_cast<short>(0xF800))),
                         _mm256_setzero_si256());
  __m256i first = _mm256_blendv_epi8(_mm256_blendv_epi8(three, two, short_form), units, one_byte);
  // Surrogate halves.
  __m256i const kind = _mm256_and_si256(units, _mm256_set1_epi16(static_cast<short>(0xFC00)));
  __m256i const high = _mm256_cmpeq_epi16(kind, _mm256_set1_epi16(static_cast<short>(0xD800)));
  __m256i const low = _mm256_cmpeq_epi16(kind, _mm256_set1_epi16(static_cast<short>(0xDC00)));
  __m256i const top = _mm256_sub_epi16(units, _mm256_set1_epi16(static_cast<short>(0xD7C0)));
  __m256i const high_bytes = _mm256_or_si256(
      _mm256_or_si256(_mm256_srli_epi16(top, 8), _mm256_set1_epi16(0xF0)),
      _mm256_slli_epi16(
          _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(top, 2), six_bits), marker), 8));
  __m256i const low_bytes = _mm256_or_si256(
      _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(previous, _mm256_set1_epi16(3)), 4),
                      _mm256_and_si256(_mm256_srli_epi16(units, 6), _mm256_set1_epi16(0x0F))),
      _mm256_or_si256(marker, _mm256_slli_epi16(last, 8)));
  first = _mm256_blendv_epi8(_mm256_blendv_epi8(first, high_bytes, high), low_bytes, low);
  __m256i const pair = _mm256_or_si256(high, low);
  __m256i const third = _mm256_andnot_si256(_mm256_or_si256(short_form, pair), last);
  __m256i const words_low = _mm256_unpacklo_epi16(first, third);   // units 0-3 and 8-11
  __m256i const words_high = _mm256_unpackhi_epi16(first, third);  // units 4-7 and 12-15
  // Two bits of length a unit: 3, less one for a short form, an ASCII unit or a surrogate.
  constexpr uint32_t kEven = 0x55555555;
  uint32_t lengths = ~uint32_t{0} -
                     (static_cast<uint32_t>(_mm256_movemask_epi8(short_form)) & kEven) -
                     (static_cast<uint32_t>(_mm256_movemask_epi8(one_byte)) & kEven) -
                     (static_cast<uint32_t>(_mm256_movemask_epi8(pair)) & kEven);
  if (lanes < 16) lengths &= (uint32_t{1} << (2 * lanes)) - 1;
  __m128i const groups[4] = {_mm256_castsi256_si128(words_low), _mm256_castsi256_si128(words_high),
                             _mm256_extracti128_si256(words_low, 1),
                             _mm256_extracti128_si256(words_high, 1)};
  size_t o = 0;
  for (int g = 0; g < 4; ++g) {
    unsigned const key = (lengths >> (8 * g)) & 0xFF;
    _mm_storeu_si128(
        reinterpret_cast<__m128i*>(out + o),
        _mm_shuffle_epi8(groups[g],
                         _mm_load_si128(reinterpret_cast<__m128i const*>(kExpand.patterns[key]))));
    o += kExpand.lengths[key];
  }
  return o;
}

// One unit or a pair the conversions accept, as UTF-8; 0 consumed for anything else.
inline size_t scalar_unit(unsigned short const* p, size_t left, char* out, size_t* written) {
  unsigned int const u = p[0];
  if (u < 0x80) return out[0] = static_cast<char>(u), *written = 1, 1;
  if (u < 0x800) {
    out[0] = static_cast<char>(0xC0 | (u >> 6));
    out[1] = static_cast<char>(0x80 | (u & 0x3F));
    return *written = 2, 1;
  }
  if (u < 0xD800 || (u >= 0xE000 && u <= 0xFFFD && u != 0xFEFF)) {
    out[0] = static_cast<char>(0xE0 | (u >> 12));
    out[1] = static_cast<char>(0x80 | ((u >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (u & 0x3F));
    return *written = 3, 1;
  }
  if (u > 0xDBFF || left < 2 || p[1] < 0xDC00 || p[1] > 0xDFFF) return 0;
  unsigned int const s = ((u - 0xD7C0) << 10) | (p[1] & 0x3FFu);
  out[0] = static_cast<char>(0xF0 | (s >> 18));
  out[1] = static_cast<char>(0x80 | ((s >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((s >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (s & 0x3F));
  return *written = 4, 2;
}

// For eight units each below U+0800, one bit a unit that takes two bytes: the shuffle that keeps
// the low byte of every 16-bit lane and the high byte of those.
struct PairTable {
  alignas(16) uint8_t patterns[256][16] = {};
  uint8_t lengths[256] = {};
  constexpr PairTable() {
    for (int key = 0; key < 256; ++key) {
      int out = 0;
      for (int lane = 0; lane < 8; ++lane) {
        patterns[key][out++] = static_cast<uint8_t>(2 * lane);
        if ((key >> lane) & 1) patterns[key][out++] = static_cast<uint8_t>(2 * lane + 1);
      }
      lengths[key] = static_cast<uint8_t>(out);
      for (; out < 16; ++out) patterns[key][out] = 0x80;
    }
  }
};

constexpr PairTable kPairTable;

// Sixteen units each below U+0800 as UTF-8; returns the bytes written (32 at most).
[[gnu::target("avx2")]] inline size_t sixteen_short_units(__m256i units, char* out) {
  __m256i const two_bytes = _mm256_cmpgt_epi16(units, _mm256_set1_epi16(0x7F));
  // Lead byte low, continuation high.
  __m256i const two = _mm256_or_si256(
      _mm256_or_si256(_mm256_srli_epi16(units, 6), _mm256_set1_epi16(static_cast<short>(0x80C0))),
      _mm256_slli_epi16(_mm256_and_si256(units, _mm256_set1_epi16(0x3F)), 8));
  __m256i const bytes = _mm256_blendv_epi8(units, two, two_bytes);
  unsigned const mask =
      static_cast<unsigned>(_mm256_movemask_epi8(_mm256_packs_epi16(two_bytes, two_bytes)));
  unsigned const key_low = mask & 0xFF;
  unsigned const key_high = (mask >> 16) & 0xFF;
  __m128i const low = _mm_shuffle_epi8(
      _mm256_castsi256_si128(bytes),
      _mm_load_si128(reinterpret_cast<__m128i const*>(kPairTable.patterns[key_low])));
  __m128i const high = _mm_shuffle_epi8(
      _mm256_extracti128_si256(bytes, 1),
      _mm_load_si128(reinterpret_cast<__m128i const*>(kPairTable.patterns[key_high])));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), low);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + kPairTable.lengths[key_low]), high);
  return kPairTable.lengths[key_low] + kPairTable.lengths[key_high];
}

// The units of `units` one lane later: lane k holds lane k - 1, lane 0 holds zero.
[[gnu::target("avx2")]] inline __m256i one_lane_later(__m256i units) {
  return _mm256_alignr_epi8(units, _mm256_permute2x128_si256(units, units, 0x08), 14);
}

// How many of sixteen units from the first can go to the vector code: up to the first unit
// that is U+FEFF, U+FFFE, U+FFFF or a surrogate not in a pair within the sixteen.
[[gnu::target("avx2")]] inline unsigned vouched_lanes(__m256i units) {
  __m256i const kind = _mm256_and_si256(units, _mm256_set1_epi16(static_cast<short>(0xFC00)));
  // Two bits a unit; a neighbour's are two bits away.
  auto const high = static_cast<uint32_t>(_mm256_movemask_epi8(
      _mm256_cmpeq_epi16(kind, _mm256_set1_epi16(static_cast<short>(0xD800)))));
  auto const low = static_cast<uint32_t>(_mm256_movemask_epi8(
      _mm256_cmpeq_epi16(kind, _mm256_set1_epi16(static_cast<short>(0xDC00)))));
  auto const refused = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_or_si256(
      _mm256_cmpeq_epi16(_mm256_max_epu16(units, _mm256_set1_epi16(static_cast<short>(0xFFFE))),
                         units),
      _mm256_cmpeq_epi16(units, _mm256_set1_epi16(static_cast<short>(0xFEFF))))));
  uint32_t const bad = (high & ~(low >> 2)) | (low & ~(high << 2)) | refused;
  return bad == 0 ? 16 : static_cast<unsigned>(__builtin_ctz(bad)) / 2;
}

[[gnu::target("avx2")]] ConversionProgress to_utf8_avx2(unsigned short const* p, size_t size,
                                                        char* out, size_t capacity) {
  size_t i = 0;
  size_t o = 0;
  // The end of the text, a short destination and every unit the rules must see are left to
  // the caller.
  while (i + 16 <= size && capacity - o >= 64) {
    __m256i const block = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i));
    if (_mm256_testz_si256(block, _mm256_set1_epi16(static_cast<short>(0xFF80)))) {
      _mm_storeu_si128(
          reinterpret_cast<__m128i*>(out + o),
          _mm_packus_epi16(_mm256_castsi256_si128(block), _mm256_extracti128_si256(block, 1)));
      i += 16;
      o += 16;
      continue;
    }
    if (_mm256_testz_si256(block, _mm256_set1_epi16(static_cast<short>(0xF800)))) {
      o += sixteen_short_units(block, out + o);
      i += 16;
      continue;
    }
    // Two paths, not one with an add of `lanes`: the next load then need not wait for this
    // block's masks, and the lane limit folds away in the common one.
    unsigned const lanes = vouched_lanes(block);
    if (__builtin_expect(lanes == 16, 1)) {
      o += sixteen_units(block, one_lane_later(block), out + o, 16);
      i += 16;
      continue;
    }
    if (lanes == 0) break;
    o += sixteen_units(block, one_lane_later(block), out + o, lanes);
    i += lanes;
  }
  return ConversionProgress{i, o};
}

// Units `start` to `size` of a text of at least eight units (sixteen of them at most), then
// zero lanes.
[[gnu::target("avx2")]] inline __m256i padded_units(unsigned short const* p, size_t start,
                                                    size_t size) {
  return padded_tail(reinterpret_cast<unsigned char const*>(p), 2 * start, 2 * size);
}

// The first `lanes` units of `block`, whose other lanes are zero, as UTF-8 at `out` (64 bytes
// of room); 0 when a unit among them needs the rules.
[[gnu::target("avx2")]] inline size_t register_to_utf8(__m256i block, unsigned lanes, char* out) {
  if (_mm256_testz_si256(block, _mm256_set1_epi16(static_cast<short>(0xFF80)))) {
    _mm_storeu_si128(
        reinterpret_cast<__m128i*>(out),
        _mm_packus_epi16(_mm256_castsi256_si128(block), _mm256_extracti128_si256(block, 1)));
    return lanes;
  }
  if (_mm256_testz_si256(block, _mm256_set1_epi16(static_cast<short>(0xF800)))) {
    return sixteen_short_units(block, out) - (16 - lanes);  // the zero lanes gave a byte each
  }
  if (vouched_lanes(block) < lanes) return 0;
  return sixteen_units(block, one_lane_later(block), out, lanes);
}

// A text of eight to 31 units, in one or two registers with zero lanes after it: no loop, so
// no branch to mispredict where the script changes. Writes nothing unless every unit is one the
// vector code vouches for and all of it fits.
[[gnu::target("avx2")]] ConversionProgress to_utf8_short(unsigned short const* p, size_t size,
                                                         char* out, size_t capacity) {
  char bytes[128];
  size_t start = 0;
  size_t written = 0;
  if (size > 16) {
    __m256i const block = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p));
    // A pair across the sixteenth unit waits for the second register.
    start = (p[15] & 0xFC00) == 0xD800 ? 15 : 16;
    written = register_to_utf8(block, static_cast<unsigned>(start), bytes);
    if (written == 0) return ConversionProgress{0, 0};
  }
  auto const lanes = static_cast<unsigned>(size - start);
  size_t const rest = register_to_utf8(padded_units(p, start, size), lanes, bytes + written);
  if (rest == 0) return ConversionProgress{0, 0};
  written += rest;
  if (written > capacity) return ConversionProgress{0, 0};
  copy_short(out, bytes, written);
  return ConversionProgress{size, written};
}

// Sixteen 32-bit units narrowed to 16-bit lanes, with how many from the first the 16-bit path
// may take as single characters: below U+10000, no surrogate (32-bit text has no pairs), not
// refused.
struct NarrowedUnits {
  __m256i block;
  unsigned lanes;
};

[[gnu::target("avx2")]] inline NarrowedUnits narrow_units(unsigned char const* p) {
  __m256i const first = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p));
  __m256i const second = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + 32));
  __m256i const top = _mm256_set1_epi32(static_cast<int>(0xFFFF0000u));
  __m256i const zero = _mm256_setzero_si256();
  // Wide lanes (any of the top bits, negative values included) as 16-bit lanes in order.
  __m256i const ones = _mm256_set1_epi32(-1);
  __m256i const wide = _mm256_permute4x64_epi64(
      _mm256_packs_epi32(
          _mm256_xor_si256(_mm256_cmpeq_epi32(_mm256_and_si256(first, top), zero), ones),
          _mm256_xor_si256(_mm256_cmpeq_epi32(_mm256_and_si256(second, top), zero), ones)),
      0xD8);
  __m256i const block = _mm256_permute4x64_epi64(_mm256_packus_epi32(first, second), 0xD8);
  __m256i const surrogate =
      _mm256_cmpeq_epi16(_mm256_and_si256(block, _mm256_set1_epi16(static_cast<short>(0xF800))),
                         _mm256_set1_epi16(static_cast<short>(0xD800)));
  __m256i const refused = _mm256_or_si256(
      _mm256_cmpeq_epi16(_mm256_max_epu16(block, _mm256_set1_epi16(static_cast<short>(0xFFFE))),
                         block),
      _mm256_cmpeq_epi16(block, _mm256_set1_epi16(static_cast<short>(0xFEFF))));
  auto const bad = static_cast<uint32_t>(
      _mm256_movemask_epi8(_mm256_or_si256(_mm256_or_si256(wide, surrogate), refused)));
  return NarrowedUnits{block, bad == 0 ? 16 : static_cast<unsigned>(__builtin_ctz(bad)) / 2};
}

// UCS-4 or 32-bit wide text to UTF-8 sixteen units at a time, through the 16-bit path, until a
// unit the rules must see; the end of the text and a short destination are left to the caller.
[[gnu::target("avx2")]] ConversionProgress wide_to_utf8_avx2(unsigned char const* p, size_t size,
                                                             char* out, size_t capacity) {
  size_t i = 0;
  size_t o = 0;
  while (i + 16 <= size && capacity - o >= 64) {
    NarrowedUnits const units = narrow_units(p + 4 * i);
    if (units.lanes == 0) break;
    if (units.lanes == 16 &&
        _mm256_testz_si256(units.block, _mm256_set1_epi16(static_cast<short>(0xF800)))) {
      o += sixteen_short_units(units.block, out + o);
    } else {
      o += sixteen_units(units.block, _mm256_setzero_si256(), out + o, units.lanes);
    }
    i += units.lanes;
  }
  return ConversionProgress{i, o};
}

[[gnu::target("avx2")]] size_t utf8_length_avx2(unsigned short const* p, size_t size,
                                                size_t* consumed) {
  size_t count = 0;
  size_t i = 0;
  while (i < size) {
    if (i + 16 <= size &&
        _mm256_testz_si256(_mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i)),
                           _mm256_set1_epi16(static_cast<short>(0xFF80)))) {
      count += 16;
      i += 16;
      continue;
    }
    if (i + 8 <= size) {
      __m128i const units = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + i));
      if (!has_special_unit(units)) {
        // 1 + (unit above 0x7F) + (unit above 0x7FF), summed over the eight.
        __m128i const two =
            _mm_cmpgt_epi16(_mm_min_epu16(units, _mm_set1_epi16(0x800)), _mm_set1_epi16(0x7F));
        __m128i const three =
            _mm_cmpeq_epi16(_mm_min_epu16(units, _mm_set1_epi16(0x800)), _mm_set1_epi16(0x800));
        count += 8 +
                 static_cast<size_t>(
                     __builtin_popcount(static_cast<unsigned>(_mm_movemask_epi8(two))) / 2) +
                 static_cast<size_t>(
                     __builtin_popcount(static_cast<unsigned>(_mm_movemask_epi8(three))) / 2);
        i += 8;
        continue;
      }
    }
    char scratch[4];
    size_t written = 0;
    size_t const used = scalar_unit(p + i, size - i, scratch, &written);
    if (used == 0) break;
    i += used;
    count += written;
  }
  *consumed = i;
  return count;
}

}  // namespace

ConversionProgress utf16_to_utf8_valid(unsigned short const* text, size_t size, char* out,
                                       size_t capacity) noexcept {
  if (!has_avx2() || size < 8) return ConversionProgress{0, 0};  // the scalar loop wins
  if (size < 32) return to_utf8_short(text, size, out, capacity);
  return to_utf8_avx2(text, size, out, capacity);
}

ConversionProgress ucs4_to_utf8_valid(unsigned int const* text, size_t size, char* out,
                                      size_t capacity) noexcept {
  if (!has_avx2() || size < 16) return ConversionProgress{0, 0};
  return wide_to_utf8_avx2(reinterpret_cast<unsigned char const*>(text), size, out, capacity);
}

ConversionProgress wide_to_utf8_valid(wchar_t const* text, size_t size, char* out,
                                      size_t capacity) noexcept {
  static_assert(sizeof(wchar_t) == 4, "wide units are 32-bit here");
  if (!has_avx2() || size < 16) return ConversionProgress{0, 0};
  return wide_to_utf8_avx2(reinterpret_cast<unsigned char const*>(text), size, out, capacity);
}

size_t utf16_to_utf8_length_valid(unsigned short const* text, size_t size,
                                  size_t* consumed) noexcept {
  *consumed = 0;
  if (!has_avx2() || size < 16) return 0;
  return utf8_length_avx2(text, size, consumed);
}

}  // namespace impl
}  // namespace tqcore
