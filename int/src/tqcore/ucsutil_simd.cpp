// Validation of UTF-8 by nibble lookups, 32 bytes at a time (Keiser and Lemire, "Validating
// UTF-8 in less than one instruction per byte"). It checks standard UTF-8: at most four bytes,
// at most U+10FFFF, no surrogates, no overlong forms. All such text is valid here too, except
// U+FEFF, which is checked for beside it. Five- and six-byte forms and scalars beyond U+10FFFF
// stop the vector walk and go to the scalar rules.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "ucsutil_simd.h"

namespace tqcore {
namespace impl {
namespace {

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
  __m256i const lead_ef = _mm256_cmpeq_epi8(prev2, _mm256_set1_epi8(static_cast<char>(0xEF)));
  __m256i const last_bf = _mm256_cmpeq_epi8(input, _mm256_set1_epi8(static_cast<char>(0xBF)));
  __m256i refused = _mm256_and_si256(
      _mm256_and_si256(lead_ef,
                       _mm256_cmpeq_epi8(prev1, _mm256_set1_epi8(static_cast<char>(0xBB)))),
      last_bf);
  if (for_conversion) {
    __m256i const last_be_or_bf = _mm256_or_si256(
        last_bf, _mm256_cmpeq_epi8(input, _mm256_set1_epi8(static_cast<char>(0xBE))));
    refused = _mm256_or_si256(
        refused,
        _mm256_and_si256(
            _mm256_and_si256(lead_ef,
                             _mm256_cmpeq_epi8(prev1, _mm256_set1_epi8(static_cast<char>(0xBF)))),
            last_be_or_bf));
  }
  return _mm256_or_si256(_mm256_xor_si256(must_continue, special), refused);
}

// Nonzero where a sequence begun in the last three bytes needs bytes of the next block.
[[gnu::target("avx2")]] inline bool ends_incomplete(__m256i input) {
  __m256i const limits =
      _mm256_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                       -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, static_cast<char>(0xF0 - 1),
                       static_cast<char>(0xE0 - 1), static_cast<char>(0xC0 - 1));
  return !_mm256_testz_si256(_mm256_subs_epu8(input, limits), _mm256_subs_epu8(input, limits));
}

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
  alignas(32) unsigned char tail[32] = {};
  __builtin_memcpy(tail, p + i, size - i);
  __m256i const input = _mm256_load_si256(reinterpret_cast<__m256i const*>(tail));
  __m256i const errors = block_errors(input, previous, for_conversion);
  return _mm256_testz_si256(errors, errors) ? size : sequence_start(p, i);
}

}  // namespace

// Read once while the library loads; until then every caller takes the scalar path.
bool const g_hasAvx2 = __builtin_cpu_supports("avx2");

namespace {

// ---- UTF-8 to UTF-16 on valid text -----------------------------------------------------------

// For each set of lead lanes among eight 16-bit lanes, the shuffle that packs those lanes to
// the front, in order.
struct CompactTable {
  alignas(16) uint8_t patterns[256][16];
  CompactTable() {
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

CompactTable const kCompact;

// One character of valid text, written as one or two units.
inline size_t decode_valid(unsigned char const* p, unsigned int* scalar) {
  unsigned int const b0 = p[0];
  if (b0 < 0x80) return *scalar = b0, 1;
  if (b0 < 0xE0) return *scalar = ((b0 & 0x1Fu) << 6) | (p[1] & 0x3Fu), 2;
  if (b0 < 0xF0) {
    *scalar = ((b0 & 0x0Fu) << 12) | ((p[1] & 0x3Fu) << 6) | (p[2] & 0x3Fu);
    return 3;
  }
  *scalar = ((b0 & 0x07u) << 18) | ((p[1] & 0x3Fu) << 12) | ((p[2] & 0x3Fu) << 6) | (p[3] & 0x3Fu);
  return 4;
}

// The characters that begin in the first sixteen bytes at `p` (none of them a four-byte
// form), as UTF-16 packed to the front of `out`; returns how many were written, and sets
// `*next` to the offset of the first character that begins at 16 or later. Reads 34 bytes.
[[gnu::target("avx2")]] inline size_t sixteen_lanes(unsigned char const* p, unsigned short* out,
                                                    size_t* next, unsigned lane_limit = 16) {
  __m256i const block = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p));
  unsigned const continuation = static_cast<unsigned>(
      _mm256_movemask_epi8(_mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(0xC0)), block)) &
      _mm256_movemask_epi8(block));
  unsigned const leads = ~continuation & (lane_limit == 16 ? ~0u : (1u << lane_limit) - 1);
  __m256i const b0 = _mm256_cvtepu8_epi16(_mm256_castsi256_si128(block));
  __m256i const b1 = _mm256_and_si256(
      _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<__m128i const*>(p + 1))),
      _mm256_set1_epi16(0x3F));
  __m256i const b2 = _mm256_and_si256(
      _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<__m128i const*>(p + 2))),
      _mm256_set1_epi16(0x3F));
  __m256i const two =
      _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(b0, _mm256_set1_epi16(0x1F)), 6), b1);
  __m256i const three =
      _mm256_or_si256(_mm256_or_si256(_mm256_slli_epi16(b0, 12), _mm256_slli_epi16(b1, 6)), b2);
  __m256i units = _mm256_blendv_epi8(b0, two, _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xBF)));
  units = _mm256_blendv_epi8(units, three, _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xDF)));
  unsigned const low = leads & 0xFF;
  unsigned const high = (leads >> 8) & 0xFF;
  __m128i const packed_low =
      _mm_shuffle_epi8(_mm256_castsi256_si128(units),
                       _mm_load_si128(reinterpret_cast<__m128i const*>(kCompact.patterns[low])));
  __m128i const packed_high =
      _mm_shuffle_epi8(_mm256_extracti128_si256(units, 1),
                       _mm_load_si128(reinterpret_cast<__m128i const*>(kCompact.patterns[high])));
  size_t const written_low = static_cast<size_t>(__builtin_popcount(low));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), packed_low);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + written_low), packed_high);
  *next =
      lane_limit < 16 ? lane_limit : static_cast<size_t>(__builtin_ctz(~continuation >> 16)) + 16;
  return written_low + static_cast<size_t>(__builtin_popcount(high));
}

// The bytes from 0xF0 among the first sixteen at `p`, one bit each.
[[gnu::target("avx2")]] inline unsigned four_byte_leads(unsigned char const* p) {
  __m128i const bytes = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p));
  __m128i const below = _mm_cmpeq_epi8(_mm_subs_epu8(bytes, _mm_set1_epi8(static_cast<char>(0xEF))),
                                       _mm_setzero_si128());
  return ~static_cast<unsigned>(_mm_movemask_epi8(below)) & 0xFFFF;
}

[[gnu::target("avx2")]] ConversionProgress to_utf16_avx2(unsigned char const* p, size_t size,
                                                         unsigned short* out, size_t capacity) {
  size_t i = 0;
  size_t o = 0;
  while (i < size) {
    if (p[i] < 0x80 && i + 32 <= size && o + 32 <= capacity) {
      __m256i const block = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i));
      if (_mm256_movemask_epi8(block) == 0) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + o),
                            _mm256_cvtepu8_epi16(_mm256_castsi256_si128(block)));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + o + 16),
                            _mm256_cvtepu8_epi16(_mm256_extracti128_si256(block, 1)));
        i += 32;
        o += 32;
        continue;
      }
    }
    if (i + 34 <= size && o + 16 <= capacity) {
      // Up to the first four-byte form, which the scalar step below takes.
      unsigned const four = four_byte_leads(p + i);
      unsigned const limit = four == 0 ? 16 : static_cast<unsigned>(__builtin_ctz(four));
      if (limit > 0) {
        size_t next = 0;
        o += sixteen_lanes(p + i, out + o, &next, limit);
        i += next;
        continue;
      }
    }
    unsigned int scalar = 0;
    size_t const length = decode_valid(p + i, &scalar);
    size_t const units = scalar < 0x10000 ? 1 : 2;
    if (o + units > capacity) break;
    if (units == 1) {
      out[o] = static_cast<unsigned short>(scalar);
    } else {
      out[o] = static_cast<unsigned short>((scalar >> 10) + 0xD7C0);
      out[o + 1] = static_cast<unsigned short>((scalar & 0x3FF) | 0xDC00);
    }
    i += length;
    o += units;
  }
  return ConversionProgress{i, o};
}

// Every byte that is no continuation begins one unit; a four-byte form needs a second.
[[gnu::target("avx2")]] size_t utf16_length_avx2(unsigned char const* p, size_t size) {
  size_t count = 0;
  size_t i = 0;
  for (; i + 32 <= size; i += 32) {
    __m256i const block = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i));
    unsigned const continuation = static_cast<unsigned>(
        _mm256_movemask_epi8(_mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(0xC0)), block)) &
        _mm256_movemask_epi8(block));
    unsigned const four = static_cast<unsigned>(_mm256_movemask_epi8(
        _mm256_cmpeq_epi8(_mm256_subs_epu8(block, _mm256_set1_epi8(static_cast<char>(0xEF))),
                          _mm256_setzero_si256())));
    count += 32 - static_cast<size_t>(__builtin_popcount(continuation)) +
             (32 - static_cast<size_t>(__builtin_popcount(four)));
  }
  for (; i < size; ++i) count += (p[i] & 0xC0) != 0x80 ? (p[i] >= 0xF0 ? 2 : 1) : 0;
  return count;
}

// ---- UTF-16 to UTF-8 -------------------------------------------------------------------------

// For four 32-bit lanes of one to three UTF-8 bytes each (two bits of length per lane, 1 to 3),
// the shuffle that packs the bytes of the lanes to the front, in order.
struct ExpandTable {
  alignas(16) uint8_t patterns[256][16];
  uint8_t lengths[256];
  ExpandTable() {
    for (int key = 0; key < 256; ++key) {
      int out = 0;
      for (int lane = 0; lane < 4; ++lane) {
        int const length = (key >> (2 * lane)) & 3;
        for (int k = 0; k < length; ++k) patterns[key][out++] = static_cast<uint8_t>(4 * lane + k);
      }
      lengths[key] = static_cast<uint8_t>(out);
      for (; out < 16; ++out) patterns[key][out] = 0x80;
    }
  }
};

ExpandTable const kExpand;

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

// The first `lanes` of eight units below U+10000, none special, as UTF-8; returns the bytes
// written (at most 24, and 32 are stored).
[[gnu::target("avx2")]] inline size_t eight_units(__m128i units, char* out, unsigned lanes = 8) {
  __m256i const c = _mm256_cvtepu16_epi32(units);
  __m256i const one = c;
  __m256i const two =
      _mm256_or_si256(_mm256_or_si256(_mm256_srli_epi32(c, 6), _mm256_set1_epi32(0x80C0)),
                      _mm256_slli_epi32(_mm256_and_si256(c, _mm256_set1_epi32(0x3F)), 8));
  __m256i const three = _mm256_or_si256(
      _mm256_or_si256(_mm256_srli_epi32(c, 12), _mm256_set1_epi32(0x8080E0)),
      _mm256_or_si256(
          _mm256_slli_epi32(_mm256_and_si256(_mm256_srli_epi32(c, 6), _mm256_set1_epi32(0x3F)), 8),
          _mm256_slli_epi32(_mm256_and_si256(c, _mm256_set1_epi32(0x3F)), 16)));
  __m256i const at_least_two = _mm256_cmpgt_epi32(c, _mm256_set1_epi32(0x7F));
  __m256i const three_bytes = _mm256_cmpgt_epi32(c, _mm256_set1_epi32(0x7FF));
  __m256i const bytes =
      _mm256_blendv_epi8(_mm256_blendv_epi8(one, two, at_least_two), three, three_bytes);
  // Lengths as two bits a lane, 1 + (at least two) + (three): bit k of a lane mask spread to
  // bit 2k adds one to lane k without carrying into the next.
  static constexpr uint8_t kSpread[16] = {0x00, 0x01, 0x04, 0x05, 0x10, 0x11, 0x14, 0x15,
                                          0x40, 0x41, 0x44, 0x45, 0x50, 0x51, 0x54, 0x55};
  unsigned const twos =
      static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(at_least_two)));
  unsigned const threes =
      static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(three_bytes)));
  // Lanes past the limit get the length 0.
  unsigned const kept = lanes >= 8 ? 0xFFFFu : (1u << (2 * lanes)) - 1;
  unsigned const key_low = (0x55u + kSpread[twos & 0xF] + kSpread[threes & 0xF]) & kept;
  unsigned const key_high = (0x55u + kSpread[twos >> 4] + kSpread[threes >> 4]) & (kept >> 8);
  __m128i const low =
      _mm_shuffle_epi8(_mm256_castsi256_si128(bytes),
                       _mm_load_si128(reinterpret_cast<__m128i const*>(kExpand.patterns[key_low])));
  __m128i const high = _mm_shuffle_epi8(
      _mm256_extracti128_si256(bytes, 1),
      _mm_load_si128(reinterpret_cast<__m128i const*>(kExpand.patterns[key_high])));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), low);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + kExpand.lengths[key_low]), high);
  return kExpand.lengths[key_low] + kExpand.lengths[key_high];
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

[[gnu::target("avx2")]] ConversionProgress to_utf8_avx2(unsigned short const* p, size_t size,
                                                        char* out, size_t capacity) {
  size_t i = 0;
  size_t o = 0;
  while (i < size) {
    if (i + 16 <= size && o + 16 <= capacity) {
      __m256i const block = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + i));
      if (_mm256_testz_si256(block, _mm256_set1_epi16(static_cast<short>(0xFF80)))) {
        _mm_storeu_si128(
            reinterpret_cast<__m128i*>(out + o),
            _mm_packus_epi16(_mm256_castsi256_si128(block), _mm256_extracti128_si256(block, 1)));
        i += 16;
        o += 16;
        continue;
      }
    }
    if (i + 8 <= size && o + 8 <= capacity) {
      __m128i const units = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + i));
      if (_mm_testz_si128(units, _mm_set1_epi16(static_cast<short>(0xFF80)))) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + o), _mm_packus_epi16(units, units));
        i += 8;
        o += 8;
        continue;
      }
    }
    if (i + 8 <= size && o + 32 <= capacity) {
      // Up to the first special unit, which the scalar step below takes.
      __m128i const units = _mm_loadu_si128(reinterpret_cast<__m128i const*>(p + i));
      unsigned const special = special_units(units);
      unsigned const lanes = special == 0 ? 8 : static_cast<unsigned>(__builtin_ctz(special)) / 2;
      if (lanes > 0) {
        o += eight_units(units, out + o, lanes);
        i += lanes;
        continue;
      }
    }
    if (o + 4 > capacity) break;  // the rules decide what a short destination gets
    size_t written = 0;
    size_t const used = scalar_unit(p + i, size - i, out + o, &written);
    if (used == 0) break;
    i += used;
    o += written;
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
  if (!has_avx2() || size < 16) return ConversionProgress{0, 0};  // short: the scalar loop wins
  return to_utf8_avx2(text, size, out, capacity);
}

size_t utf16_to_utf8_length_valid(unsigned short const* text, size_t size,
                                  size_t* consumed) noexcept {
  *consumed = 0;
  if (!has_avx2() || size < 16) return 0;
  return utf8_length_avx2(text, size, consumed);
}

ConversionProgress utf8_to_utf16_valid(char const* text, size_t size, unsigned short* out,
                                       size_t capacity) noexcept {
  if (!has_avx2()) return ConversionProgress{0, 0};
  return to_utf16_avx2(reinterpret_cast<unsigned char const*>(text), size, out, capacity);
}

size_t utf8_to_utf16_length_valid(char const* text, size_t size) noexcept {
  if (!has_avx2()) return 0;
  return utf16_length_avx2(reinterpret_cast<unsigned char const*>(text), size);
}

size_t utf8_valid_prefix(char const* text, size_t size, bool for_conversion) noexcept {
  if (!has_avx2() || size < 32) return 0;  // short texts are cheaper on the scalar walk
  return valid_prefix_avx2(reinterpret_cast<unsigned char const*>(text), size, for_conversion);
}

}  // namespace impl
}  // namespace tqcore
