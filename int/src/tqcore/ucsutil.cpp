#include <tqcore/error_code.h>
#include <tqcore/error_exception.h>
#include <tqcore/ucsutil.h>

#include <emmintrin.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <cwchar>
#include <type_traits>

#include "file_ids.h"
#include "ucsutil_simd.h"

namespace tqcore {
namespace {

constexpr size_t kNpos = static_cast<size_t>(-1);
char const kFileId[] = TQCORE_FILE_ID("ucsutil");

inline unsigned char byte_at(char const* text, size_t i) {
  return static_cast<unsigned char>(text[i]);
}
inline bool is_continuation(unsigned char b) { return (b & 0xC0) == 0x80; }
inline bool is_surrogate(unsigned int s) { return s >= 0xD800 && s <= 0xDFFF; }
// Refused by every per-character conversion besides the surrogates.
inline bool is_refused_noncharacter(unsigned int s) {
  return s == 0xFEFF || s == 0xFFFE || s == 0xFFFF;
}

size_t fail(int value) {
  set_errno(value);
  return 0;
}

void reset_invalid(int* first_invalid) {
  if (first_invalid != nullptr) *first_invalid = -1;
}

// Only the first failure is recorded.
void record_invalid(int* first_invalid, size_t offset) {
  if (first_invalid != nullptr && *first_invalid == -1) {
    *first_invalid = offset > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(offset);
  }
}

[[noreturn]] void raise_conversion(char const* message, char const* function, unsigned int line) {
  throw_error(error::tqcore_string_conversion, message, SourceLocation(function, kFileId, line));
}

// ---- Bulk ASCII runs -------------------------------------------------------------------------
// These only find and move runs of units below 0x80; every other unit goes through the scalar
// rules, so results, statuses and offsets are those of the rules alone.

size_t ascii_run(char const* text, size_t size) {
  size_t i = 0;
  for (; i + 16 <= size; i += 16) {
    __m128i block = _mm_loadu_si128(reinterpret_cast<__m128i const*>(text + i));
    int mask = _mm_movemask_epi8(block);
    if (mask != 0) return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
  }
  while (i < size && byte_at(text, i) < 0x80) ++i;
  return i;
}

template <class Unit>
size_t ascii_run(Unit const* text, size_t size) {
  size_t i = 0;
  while (i < size && static_cast<unsigned int>(text[i]) < 0x80) ++i;
  return i;
}

size_t ascii_run(unsigned short const* text, size_t size) {
  size_t i = 0;
  __m128i const limit = _mm_set1_epi16(0x7F);
  for (; i + 8 <= size; i += 8) {
    __m128i block = _mm_loadu_si128(reinterpret_cast<__m128i const*>(text + i));
    // Units above 0x7F survive the unsigned saturating subtraction.
    int mask =
        _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_subs_epu16(block, limit), _mm_setzero_si128()));
    if (mask != 0xFFFF) {
      return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(~mask & 0xFFFF))) / 2;
    }
  }
  while (i < size && text[i] < 0x80) ++i;
  return i;
}

void widen_ascii(char const* source, size_t count, unsigned short* target) {
  size_t i = 0;
  __m128i const zero = _mm_setzero_si128();
  for (; i + 16 <= count; i += 16) {
    __m128i block = _mm_loadu_si128(reinterpret_cast<__m128i const*>(source + i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(target + i), _mm_unpacklo_epi8(block, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(target + i + 8), _mm_unpackhi_epi8(block, zero));
  }
  for (; i < count; ++i) target[i] = byte_at(source, i);
}

template <class Unit>
void widen_ascii(char const* source, size_t count, Unit* target) {
  for (size_t i = 0; i < count; ++i) target[i] = static_cast<Unit>(byte_at(source, i));
}

void narrow_ascii(unsigned short const* source, size_t count, char* target) {
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    __m128i low = _mm_loadu_si128(reinterpret_cast<__m128i const*>(source + i));
    __m128i high = _mm_loadu_si128(reinterpret_cast<__m128i const*>(source + i + 8));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(target + i), _mm_packus_epi16(low, high));
  }
  for (; i < count; ++i) target[i] = static_cast<char>(source[i]);
}

template <class Unit>
void narrow_ascii(Unit const* source, size_t count, char* target) {
  for (size_t i = 0; i < count; ++i) target[i] = static_cast<char>(source[i]);
}

// Copies a run into the destination; on a short destination it copies what fits and fails as
// the unit-by-unit loop would.
template <class From, class To, class Copy>
bool store_run(From const* source, size_t run, To* destination, size_t capacity, size_t* count,
               Copy copy) {
  size_t room = capacity - *count;
  if (run > room) {
    copy(source, room, destination + *count);
    *count = capacity;
    set_errno(ENOMEM);
    return false;
  }
  copy(source, run, destination + *count);
  *count += run;
  return true;
}

// ---- The validator ---------------------------------------------------------------------------

// The status of the sequence at `text` (size > 0 bytes left, lead byte 0x80 or above), and
// its length when valid. The order of the tests decides the status and is part of the format.
int check_sequence(unsigned char const* p, size_t left, size_t* length) {
  unsigned char const lead = p[0];
  if (lead < 0xC0 || lead >= 0xFE) return utf8_bad_first_byte;
  if (lead < 0xE0) {
    if (left < 2) return utf8_partial;
    if (lead < 0xC2) return utf8_overlong;
    if (!is_continuation(p[1])) return utf8_bad_continuation;
    *length = 2;
    return utf8_valid;
  }
  if (lead < 0xF0) {
    if (left < 3) return utf8_partial;
    if (!is_continuation(p[1]) || !is_continuation(p[2])) return utf8_bad_continuation;
    unsigned int s = ((lead & 0x0Fu) << 12) | ((p[1] & 0x3Fu) << 6) | (p[2] & 0x3Fu);
    if (s < 0x800) return utf8_overlong;
    if (is_surrogate(s)) return utf8_surrogate;
    if (s == 0xFEFF) return utf8_bom;
    *length = 3;
    return utf8_valid;
  }
  size_t const n = lead < 0xF8 ? 4 : lead < 0xFC ? 5 : 6;
  unsigned char const overlong_lead = n == 4 ? 0xF0 : n == 5 ? 0xF8 : 0xFC;
  unsigned char const smallest_second = n == 4 ? 0x90 : n == 5 ? 0x88 : 0x84;
  if (left < n) return utf8_partial;
  if (lead == overlong_lead && p[1] < smallest_second) return utf8_overlong;
  for (size_t k = 1; k < n; ++k) {
    if (!is_continuation(p[k])) return utf8_bad_continuation;
  }
  *length = n;
  return utf8_valid;
}

// The end of an ill-formed run: the next byte below 0x80 or from 0xC0 after `i`, or the end.
size_t skip_ill_formed(char const* text, size_t size, size_t i) {
  size_t j = i + 1;
  while (j < size && is_continuation(byte_at(text, j))) ++j;
  return j;
}

// Decodes the well-formed sequences of U+0080 to U+10FFFF that every conversion accepts; 0 for
// anything else, which then takes the full rules. Only a shortcut: it accepts nothing that
// the rules would treat differently.
inline size_t decode_common(char const* text, size_t left, unsigned int* scalar) {
  auto const* p = reinterpret_cast<unsigned char const*>(text);
  unsigned int const b0 = p[0];
  if (b0 < 0xC2) return 0;
  if (b0 < 0xE0) {
    if (left < 2 || !is_continuation(p[1])) return 0;
    *scalar = ((b0 & 0x1Fu) << 6) | (p[1] & 0x3Fu);
    return 2;
  }
  if (b0 < 0xF0) {
    if (left < 3 || !is_continuation(p[1]) || !is_continuation(p[2])) return 0;
    unsigned int const s = ((b0 & 0x0Fu) << 12) | ((p[1] & 0x3Fu) << 6) | (p[2] & 0x3Fu);
    if (s < 0x800 || is_surrogate(s) || is_refused_noncharacter(s)) return 0;
    *scalar = s;
    return 3;
  }
  if (b0 < 0xF5) {
    if (left < 4 || !is_continuation(p[1]) || !is_continuation(p[2]) || !is_continuation(p[3])) {
      return 0;
    }
    unsigned int const s =
        ((b0 & 0x07u) << 18) | ((p[1] & 0x3Fu) << 12) | ((p[2] & 0x3Fu) << 6) | (p[3] & 0x3Fu);
    if (s < 0x10000 || s >= 0x110000) return 0;
    *scalar = s;
    return 4;
  }
  return 0;
}

// Writes a scalar of U+0080 to U+10FFFF that is no surrogate and no refused noncharacter;
// the caller has made sure of room for four bytes.
inline size_t encode_common(unsigned int s, char* out) {
  if (s < 0x800) {
    out[0] = static_cast<char>(0xC0 | (s >> 6));
    out[1] = static_cast<char>(0x80 | (s & 0x3F));
    return 2;
  }
  if (s < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (s >> 12));
    out[1] = static_cast<char>(0x80 | ((s >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (s & 0x3F));
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | (s >> 18));
  out[1] = static_cast<char>(0x80 | ((s >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((s >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (s & 0x3F));
  return 4;
}

inline size_t common_utf8_length(unsigned int s) { return s < 0x800 ? 2 : s < 0x10000 ? 3 : 4; }

// One character of one to four bytes that every conversion accepts, at `p` with at least four
// bytes readable; its length, or 0 for anything else.
template <class Unit>
inline size_t common_character(unsigned char const* p, Unit* out, size_t* written) {
  unsigned int const b0 = p[0];
  if (b0 < 0x80) return out[0] = static_cast<Unit>(b0), *written = 1, 1;
  if (b0 - 0xC2 < 0x1E) {
    if (!is_continuation(p[1])) return 0;
    out[0] = static_cast<Unit>(((b0 & 0x1Fu) << 6) | (p[1] & 0x3Fu));
    return *written = 1, 2;
  }
  if ((b0 & 0xF0) == 0xE0) {
    if (!is_continuation(p[1]) || !is_continuation(p[2])) return 0;
    unsigned int const s = ((b0 & 0x0Fu) << 12) | ((p[1] & 0x3Fu) << 6) | (p[2] & 0x3Fu);
    if (s < 0x800 || is_surrogate(s) || is_refused_noncharacter(s)) return 0;
    out[0] = static_cast<Unit>(s);
    return *written = 1, 3;
  }
  if (b0 - 0xF0 < 5) {
    if (!is_continuation(p[1]) || !is_continuation(p[2]) || !is_continuation(p[3])) return 0;
    unsigned int const s =
        ((b0 & 0x07u) << 18) | ((p[1] & 0x3Fu) << 12) | ((p[2] & 0x3Fu) << 6) | (p[3] & 0x3Fu);
    if (s < 0x10000 || s >= 0x110000) return 0;
    if constexpr (sizeof(Unit) == 2) {
      out[0] = static_cast<Unit>((s >> 10) + 0xD7C0);
      out[1] = static_cast<Unit>((s & 0x3FF) | 0xDC00);
      return *written = 2, 4;
    } else {
      out[0] = static_cast<Unit>(s);
      return *written = 1, 4;
    }
  }
  return 0;
}

// The characters every conversion accepts, converted while the destination has room; stops
// at the first other byte. Short texts and the ends of long ones spend most of their time
// here, so it takes no call and no lookup.
template <class Unit>
void common_run_from_utf8(char const* text, size_t size, Unit* out, size_t capacity, size_t* at,
                          size_t* count) {
  auto const* p = reinterpret_cast<unsigned char const*>(text);
  size_t i = *at;
  size_t o = *count;
  // While four bytes are readable and two units fit, no test of either per byte.
  for (size_t const end = size < 3 ? 0 : size - 3; i < end && capacity - o >= 2;) {
    size_t written = 0;
    size_t const used = common_character(p + i, out + o, &written);
    if (used == 0) break;
    i += used;
    o += written;
  }
  while (i < size && o < capacity) {
    unsigned int const b0 = p[i];
    if (b0 < 0x80) {
      out[o++] = static_cast<Unit>(b0);
      i += 1;
    } else if (b0 - 0xC2 < 0x1E && i + 1 < size && is_continuation(p[i + 1])) {
      out[o++] = static_cast<Unit>(((b0 & 0x1Fu) << 6) | (p[i + 1] & 0x3Fu));
      i += 2;
    } else if ((b0 & 0xF0) == 0xE0 && i + 2 < size && is_continuation(p[i + 1]) &&
               is_continuation(p[i + 2])) {
      unsigned int const s = ((b0 & 0x0Fu) << 12) | ((p[i + 1] & 0x3Fu) << 6) | (p[i + 2] & 0x3Fu);
      if (s < 0x800 || is_surrogate(s) || is_refused_noncharacter(s)) break;
      out[o++] = static_cast<Unit>(s);
      i += 3;
    } else {
      break;
    }
  }
  *at = i;
  *count = o;
}

// The same the other way: units below U+10000 that every conversion accepts, while the
// destination has room for the whole character.
template <class Unit>
void common_run_to_utf8(Unit const* text, size_t size, char* out, size_t capacity, size_t* at,
                        size_t* count) {
  size_t i = *at;
  size_t o = *count;
  for (; i < size; ++i) {
    auto const u = static_cast<unsigned int>(static_cast<std::make_unsigned_t<Unit>>(text[i]));
    if (u < 0x80) {
      if (o == capacity) break;
      out[o++] = static_cast<char>(u);
    } else if (u < 0x800) {
      if (capacity - o < 2) break;
      out[o] = static_cast<char>(0xC0 | (u >> 6));
      out[o + 1] = static_cast<char>(0x80 | (u & 0x3F));
      o += 2;
    } else if (u < 0xD800 || (u >= 0xE000 && u <= 0xFFFD && u != 0xFEFF)) {
      if (capacity - o < 3) break;
      out[o] = static_cast<char>(0xE0 | (u >> 12));
      out[o + 1] = static_cast<char>(0x80 | ((u >> 6) & 0x3F));
      out[o + 2] = static_cast<char>(0x80 | (u & 0x3F));
      o += 3;
    } else {
      break;
    }
  }
  *at = i;
  *count = o;
}

}  // namespace

// ---- Per-character functions -----------------------------------------------------------------

size_t utf8_sequence_length(char lead) noexcept {
  unsigned char const b = static_cast<unsigned char>(lead);
  if (b < 0x80) return 1;
  if (b < 0xC0) return 0;
  if (b < 0xE0) return 2;
  if (b < 0xF0) return 3;
  if (b < 0xF8) return 4;
  if (b < 0xFC) return 5;
  return b < 0xFE ? 6 : 0;
}

size_t ucs4_char_utf8_length(unsigned int s) noexcept {
  if (s < 0x80) return 1;
  if (s < 0x800) return 2;
  if (s < 0x10000) return is_surrogate(s) || is_refused_noncharacter(s) ? fail(EINVAL) : 3;
  if (s < 0x200000) return 4;
  return s < 0x4000000 ? 5 : 6;  // no upper bound here
}

size_t ucs4_char_to_utf8(unsigned int s, char* first, char* end) noexcept {
  if (s < 0x80) {
    if (first == nullptr) return 1;
    if (first == end) return fail(ENOMEM);
    *first = static_cast<char>(s);
    return 1;
  }
  if (s < 0x800) {
    if (first == nullptr) return 2;
    if (first == end) return fail(ENOMEM);
    first[0] = static_cast<char>(0xC0 | (s >> 6));
    if (first + 1 == end) return fail(ENOMEM);  // the lead byte stays written
    first[1] = static_cast<char>(0x80 | (s & 0x3F));
    return 2;
  }
  if (s >= 0x80000000u) return fail(EINVAL);
  if (s < 0x10000 && (is_surrogate(s) || is_refused_noncharacter(s))) return fail(EINVAL);
  size_t const n = s < 0x10000 ? 3 : s < 0x200000 ? 4 : s < 0x4000000 ? 5 : 6;
  if (first == nullptr) return n;
  if (static_cast<size_t>(end - first) < n) return fail(ENOMEM);
  static unsigned char const kLeadMarker[] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
  for (size_t k = n - 1; k > 0; --k) {
    first[k] = static_cast<char>(0x80 | (s & 0x3F));
    s >>= 6;
  }
  first[0] = static_cast<char>(kLeadMarker[n] | s);
  return n;
}

size_t utf8_to_ucs4_char(char const* text, size_t size, unsigned int* out) noexcept {
  if (size == 0) return 0;
  unsigned char const lead = byte_at(text, 0);
  if (lead < 0x80) {
    if (out != nullptr) *out = lead;
    return 1;
  }
  size_t const n = utf8_sequence_length(static_cast<char>(lead));
  if (n == 0 || size < n) return fail(EINVAL);
  static unsigned int const kSmallest[] = {0, 0, 0x80, 0x800, 0x10000, 0x200000, 0x4000000};
  unsigned int s = lead & (0x7Fu >> n);
  for (size_t k = 1; k < n; ++k) {
    unsigned char const b = byte_at(text, k);
    if (!is_continuation(b)) return fail(EINVAL);
    s = (s << 6) | (b & 0x3Fu);
  }
  if (s < kSmallest[n]) return fail(EINVAL);
  if (n == 3 && (is_surrogate(s) || is_refused_noncharacter(s))) return fail(EINVAL);
  if (out != nullptr) *out = s;
  return n;
}

size_t ucs4_char_to_utf16(unsigned int s, unsigned short* first, unsigned short* end) noexcept {
  bool const one_unit = s < 0xD800 || (s >= 0xE000 && s <= 0xFFFD && s != 0xFEFF);
  if (one_unit) {
    if (first == nullptr) return 1;
    if (first == end) return fail(ENOMEM);
    *first = static_cast<unsigned short>(s);
    return 1;
  }
  if (s < 0x10000 || s >= 0x110000) return fail(EINVAL);
  if (first == nullptr) return 2;
  if (first == end) return fail(ENOMEM);
  first[0] = static_cast<unsigned short>((s >> 10) + 0xD7C0);
  if (first + 1 == end) return fail(ENOMEM);  // the high unit stays written
  first[1] = static_cast<unsigned short>((s & 0x3FF) | 0xDC00);
  return 2;
}

size_t utf16_to_ucs4_char(unsigned short const* text, size_t size, unsigned int* out) noexcept {
  if (size == 0) return 0;
  unsigned int const u = text[0];
  if (u < 0xD800 || (u >= 0xE000 && u <= 0xFFFD && u != 0xFEFF)) {
    if (out != nullptr) *out = u;
    return 1;
  }
  if (u >= 0xDC00 || size < 2 || text[1] < 0xDC00 || text[1] > 0xDFFF) return fail(EINVAL);
  if (out != nullptr) *out = ((u - 0xD7C0) << 10) | (text[1] & 0x3FFu);
  return 2;
}

// ---- Wide units ------------------------------------------------------------------------------
// One wchar_t is one character: the scalars a UTF-16 text can hold, and nothing else.

namespace {

size_t wide_to_ucs4_char(wchar_t const* text, size_t size, unsigned int* out) noexcept {
  if (size == 0) return 0;
  auto const u = static_cast<unsigned int>(static_cast<std::make_unsigned_t<wchar_t>>(text[0]));
  if (u >= 0x10000 && u < 0x110000) {
    *out = u;
    return 1;
  }
  if (u < 0xD800 || (u >= 0xE000 && u <= 0xFFFD && u != 0xFEFF)) {
    *out = u;
    return 1;
  }
  return fail(EINVAL);
}

size_t ucs4_char_to_wide(unsigned int s, wchar_t* first, wchar_t* end) noexcept {
  if (is_surrogate(s) || is_refused_noncharacter(s) || s >= 0x110000) return fail(EINVAL);
  if (first == nullptr) return 1;
  if (first == end) return fail(ENOMEM);
  *first = static_cast<wchar_t>(s);
  return 1;
}

// ---- UTF-16 (or wide) to UTF-8 ---------------------------------------------------------------

struct Utf16Source {
  using Unit = unsigned short;
  static constexpr bool kVectorMeasure = true;  // the vector code measures UTF-16 too
  static impl::ConversionProgress vector_prefix(Unit const* text, size_t size, char* out,
                                                size_t capacity) {
    return impl::utf16_to_utf8_valid(text, size, out, capacity);
  }
  static size_t decode(Unit const* text, size_t size, unsigned int* out) {
    return utf16_to_ucs4_char(text, size, out);
  }
  // The well-formed units and pairs, inline; 0 sends the rest to `decode`.
  static size_t decode_common(Unit const* text, size_t size, unsigned int* out) {
    unsigned int const u = text[0];
    if (u < 0xD800 || (u >= 0xE000 && u <= 0xFFFD && u != 0xFEFF)) {
      *out = u;
      return 1;
    }
    if (u <= 0xDBFF && size >= 2 && text[1] >= 0xDC00 && text[1] <= 0xDFFF) {
      *out = ((u - 0xD7C0) << 10) | (text[1] & 0x3FFu);
      return 2;
    }
    return 0;
  }
  // A bad high surrogate takes the unit after it along, as a broken pair.
  static size_t bad_unit_length(Unit const* text, size_t left) {
    return text[0] >= 0xD800 && text[0] <= 0xDBFF && left >= 2 ? 2 : 1;
  }
};

struct WideSource {
  using Unit = wchar_t;
  static constexpr bool kVectorMeasure = false;
  static impl::ConversionProgress vector_prefix(Unit const* text, size_t size, char* out,
                                                size_t capacity) {
    return impl::wide_to_utf8_valid(text, size, out, capacity);
  }
  static size_t decode(Unit const* text, size_t size, unsigned int* out) {
    return wide_to_ucs4_char(text, size, out);
  }
  static size_t decode_common(Unit const* text, size_t size, unsigned int* out) {
    return wide_to_ucs4_char(text, size, out);
  }
  static size_t bad_unit_length(Unit const*, size_t) { return 1; }
};

template <class Unit>
size_t source_length(Unit const* source, size_t size) {
  if (size != kNpos) return size;
  size_t n = 0;
  while (source[n] != 0) ++n;
  return n + 1;  // the terminator is converted too
}

template <class Source>
size_t to_utf8_measure(typename Source::Unit const* source, size_t size, char replacement,
                       int* first_invalid) {
  size_t count = 0;
  size_t i = 0;
  if constexpr (Source::kVectorMeasure) {
    count = impl::utf16_to_utf8_length_valid(source, size, &i);
  }
  while (i < size) {
    if (static_cast<unsigned int>(source[i]) < 0x80) {
      size_t run = ascii_run(source + i, size - i);
      count += run;
      i += run;
      continue;
    }
    unsigned int scalar = 0;
    if (size_t used = Source::decode_common(source + i, size - i, &scalar)) {
      count += common_utf8_length(scalar);
      i += used;
      continue;
    }
    Source::decode(source + i, size - i, &scalar);  // sets errno for the refusal
    record_invalid(first_invalid, i);
    if (replacement == 0) {
      raise_conversion("Encountered invalid UTF-16 character that cannot be converted to UTF-8",
                       "tqcore::utf16_to_utf8()", __LINE__);
    }
    count += 1;
    i += Source::bad_unit_length(source + i, size - i);
  }
  return count;
}

template <class Source>
size_t to_utf8_write(typename Source::Unit const* source, size_t size, char* destination,
                     size_t capacity, char replacement, int* first_invalid) {
  using Unit = typename Source::Unit;
  size_t count = 0;
  size_t i = 0;
  while (i < size) {
    // The vector code takes what it can vouch for, again after each unit the rules handled.
    impl::ConversionProgress const done =
        Source::vector_prefix(source + i, size - i, destination + count, capacity - count);
    i += done.consumed;
    count += done.written;
    common_run_to_utf8(source, size, destination, capacity, &i, &count);
    if (i == size) break;
    if (static_cast<unsigned int>(source[i]) < 0x80) {
      size_t run = ascii_run(source + i, size - i);
      if (!store_run(source + i, run, destination, capacity, &count,
                     [](Unit const* from, size_t n, char* to) { narrow_ascii(from, n, to); })) {
        return 0;
      }
      i += run;
      continue;
    }
    unsigned int scalar = 0;
    if (size_t used = Source::decode_common(source + i, size - i, &scalar)) {
      size_t written = capacity - count >= 4
                           ? encode_common(scalar, destination + count)
                           : ucs4_char_to_utf8(scalar, destination + count, destination + capacity);
      if (written == 0) return 0;
      count += written;
      i += used;
      continue;
    }
    Source::decode(source + i, size - i, &scalar);  // sets errno for the refusal
    record_invalid(first_invalid, i);
    if (replacement == 0) {
      raise_conversion("Encountered invalid UCS-4 character that cannot be converted to UTF-8",
                       "tqcore::utf16_to_utf8()", __LINE__);
    }
    if (count == capacity) return fail(ENOMEM);
    destination[count++] = replacement;
    i += Source::bad_unit_length(source + i, size - i);
  }
  return count;
}

template <class Source>
size_t to_utf8(typename Source::Unit const* source, size_t size, char* destination, size_t capacity,
               char replacement, int* first_invalid) {
  reset_invalid(first_invalid);
  size = source_length(source, size);
  if (size == 0) return 0;
  if (destination == nullptr)
    return to_utf8_measure<Source>(source, size, replacement, first_invalid);
  return to_utf8_write<Source>(source, size, destination, capacity, replacement, first_invalid);
}

// ---- UTF-8 to UTF-16 (or wide) ---------------------------------------------------------------

struct Utf16Target {
  using Unit = unsigned short;
  static size_t measure(unsigned int s) {
    if (s < 0xD800 || (s >= 0xE000 && s <= 0xFFFD && s != 0xFEFF)) return 1;
    return s >= 0x10000 && s < 0x110000 ? 2 : fail(EINVAL);
  }
  static size_t encode(unsigned int s, Unit* first, Unit* end) {
    return ucs4_char_to_utf16(s, first, end);
  }
};

struct WideTarget {
  using Unit = wchar_t;
  static size_t measure(unsigned int s) { return ucs4_char_to_wide(s, nullptr, nullptr); }
  static size_t encode(unsigned int s, Unit* first, Unit* end) {
    return ucs4_char_to_wide(s, first, end);
  }
};

char const kNotInUtf16[] =
    "Encountered UTF-8 (UCS-4) character that cannot be represented in UTF-16";

template <class Target>
size_t from_utf8_measure(char const* source, size_t size, typename Target::Unit replacement,
                         int* first_invalid) {
  size_t i = impl::utf8_valid_prefix(source, size, true);
  size_t count = impl::utf8_to_units_length_valid(source, i, sizeof(typename Target::Unit));
  while (i < size) {
    if (byte_at(source, i) < 0x80) {
      size_t run = ascii_run(source + i, size - i);
      count += run;
      i += run;
      continue;
    }
    unsigned int scalar = 0;
    if (size_t used = decode_common(source + i, size - i, &scalar)) {
      count += scalar < 0x10000 ? 1 : Target::measure(scalar);
      i += used;
      continue;
    }
    size_t used = utf8_to_ucs4_char(source + i, size - i, &scalar);
    if (used == 0) {
      record_invalid(first_invalid, i);
      if (replacement == 0) {
        raise_invalid_utf8(source + i, size - i, "tqcore::utf8_to_utf16()", __LINE__);
      }
      count += 1;
      i = skip_ill_formed(source, size, i);
      continue;
    }
    size_t units = Target::measure(scalar);
    if (units == 0) {  // beyond U+10FFFF
      record_invalid(first_invalid, i);
      if (replacement == 0) raise_conversion(kNotInUtf16, "tqcore::utf8_to_utf16()", __LINE__);
      units = 1;
    }
    count += units;
    i += used;
  }
  return count;
}

template <class Target>
size_t from_utf8_write(char const* source, size_t size, typename Target::Unit* destination,
                       size_t capacity, typename Target::Unit replacement, int* first_invalid) {
  using Unit = typename Target::Unit;
  size_t count = 0;
  size_t i = 0;
  while (i < size) {
    // The vector code takes what it can vouch for, again after each character the rules handled.
    impl::ConversionProgress const done =
        impl::utf8_to_units_prefix(source + i, size - i, destination + count, capacity - count);
    i += done.consumed;
    count += done.written;
    common_run_from_utf8(source, size, destination, capacity, &i, &count);
    if (i == size) break;
    if (byte_at(source, i) < 0x80) {
      size_t run = ascii_run(source + i, size - i);
      if (!store_run(source + i, run, destination, capacity, &count,
                     [](char const* from, size_t n, Unit* to) { widen_ascii(from, n, to); })) {
        return 0;
      }
      i += run;
      continue;
    }
    unsigned int scalar = 0;
    if (size_t used = decode_common(source + i, size - i, &scalar)) {
      if (scalar < 0x10000 && count < capacity) {
        destination[count++] = static_cast<Unit>(scalar);
        i += used;
        continue;
      }
    }
    size_t used = utf8_to_ucs4_char(source + i, size - i, &scalar);
    if (used == 0) {
      record_invalid(first_invalid, i);
      if (replacement == 0) {
        raise_invalid_utf8(source + i, size - i, "tqcore::utf8_to_utf16()", __LINE__);
      }
      // A buffer of the measured size always has room; a smaller one is refused, not overrun.
      if (count == capacity) return fail(ENOMEM);
      destination[count++] = replacement;
      i = skip_ill_formed(source, size, i);
      continue;
    }
    size_t written = Target::encode(scalar, destination + count, destination + capacity);
    if (written == 0) {
      if (errno == ENOMEM) return 0;
      record_invalid(first_invalid, i);
      if (replacement == 0) raise_conversion(kNotInUtf16, "tqcore::utf8_to_utf16()", __LINE__);
      if (count == capacity) return fail(ENOMEM);
      destination[count] = replacement;
      written = 1;
    }
    count += written;
    i += used;
  }
  return count;
}

template <class Target>
size_t from_utf8(char const* source, size_t size, typename Target::Unit* destination,
                 size_t capacity, typename Target::Unit replacement, int* first_invalid) {
  reset_invalid(first_invalid);
  size = source_length(source, size);
  if (size == 0) return 0;
  if (destination == nullptr) {
    return from_utf8_measure<Target>(source, size, replacement, first_invalid);
  }
  return from_utf8_write<Target>(source, size, destination, capacity, replacement, first_invalid);
}

}  // namespace

size_t utf16_to_utf8(unsigned short const* source, size_t source_size, char* destination,
                     size_t capacity, char replacement, int* first_invalid) {
  return to_utf8<Utf16Source>(source, source_size, destination, capacity, replacement,
                              first_invalid);
}

size_t wstr_to_utf8(wchar_t const* source, size_t source_size, char* destination, size_t capacity,
                    char replacement, int* first_invalid) {
  return to_utf8<WideSource>(source, source_size, destination, capacity, replacement,
                             first_invalid);
}

size_t utf8_to_utf16(char const* source, size_t source_size, unsigned short* destination,
                     size_t capacity, unsigned short replacement, int* first_invalid) {
  return from_utf8<Utf16Target>(source, source_size, destination, capacity, replacement,
                                first_invalid);
}

size_t utf8_to_wstr(char const* source, size_t source_size, wchar_t* destination, size_t capacity,
                    wchar_t replacement, int* first_invalid) {
  return from_utf8<WideTarget>(source, source_size, destination, capacity, replacement,
                               first_invalid);
}

// ---- UCS-4 to UTF-8 --------------------------------------------------------------------------

namespace {

char const kBadUcs4[] = "Encountered invalid UCS-4 character that cannot be converted to UTF-8";

size_t ucs4_to_utf8_measure(unsigned int const* source, size_t size, char replacement,
                            int* first_invalid) {
  size_t count = 0;
  for (size_t i = 0; i < size; ++i) {
    size_t length = ucs4_char_utf8_length(source[i]);
    if (length == 0) {
      record_invalid(first_invalid, i);
      if (replacement == 0) raise_conversion(kBadUcs4, "tqcore::ucs4_to_utf8()", __LINE__);
      length = 1;
    }
    count += length;
  }
  return count;
}

size_t ucs4_to_utf8_write(unsigned int const* source, size_t size, char* destination,
                          size_t capacity, char replacement, int* first_invalid) {
  size_t count = 0;
  for (size_t i = 0; i < size; ++i) {
    // The vector code takes what it can vouch for, again after each character it could not.
    impl::ConversionProgress const done =
        impl::ucs4_to_utf8_valid(source + i, size - i, destination + count, capacity - count);
    i += done.consumed;
    count += done.written;
    if (i == size) break;
    if (source[i] < 0x80) {
      if (count == capacity) return fail(ENOMEM);
      destination[count++] = static_cast<char>(source[i]);
      continue;
    }
    size_t written = ucs4_char_to_utf8(source[i], destination + count, destination + capacity);
    if (written == 0) {
      if (errno == ENOMEM) return 0;
      record_invalid(first_invalid, i);
      if (replacement == 0) raise_conversion(kBadUcs4, "tqcore::ucs4_to_utf8()", __LINE__);
      if (count == capacity) return fail(ENOMEM);
      destination[count] = replacement;
      written = 1;
    }
    count += written;
  }
  return count;
}

}  // namespace

size_t ucs4_to_utf8(unsigned int const* source, size_t source_size, char* destination,
                    size_t capacity, char replacement, int* first_invalid) {
  reset_invalid(first_invalid);
  source_size = source_length(source, source_size);
  if (source_size == 0) return 0;
  if (destination == nullptr) {
    return ucs4_to_utf8_measure(source, source_size, replacement, first_invalid);
  }
  return ucs4_to_utf8_write(source, source_size, destination, capacity, replacement, first_invalid);
}

// ---- UTF-8 to UCS-4 --------------------------------------------------------------------------

namespace {

size_t utf8_to_ucs4_measure(char const* source, size_t size, unsigned int replacement,
                            int* first_invalid) {
  size_t i = impl::utf8_valid_prefix(source, size, true);
  size_t count = impl::utf8_to_units_length_valid(source, i, sizeof(unsigned int));
  while (i < size) {
    if (byte_at(source, i) < 0x80) {
      size_t run = ascii_run(source + i, size - i);
      count += run;
      i += run;
      continue;
    }
    unsigned int scalar = 0;
    size_t used = decode_common(source + i, size - i, &scalar);
    if (used == 0) used = utf8_to_ucs4_char(source + i, size - i, nullptr);
    ++count;
    if (used != 0) {
      i += used;
      continue;
    }
    record_invalid(first_invalid, i);
    if (replacement == 0)
      raise_invalid_utf8(source + i, size - i, "tqcore::utf8_to_ucs4()", __LINE__);
    i = skip_ill_formed(source, size, i);
  }
  return count;
}

// A full destination is EINVAL here, tested before the input is looked at.
size_t utf8_to_ucs4_write(char const* source, size_t size, unsigned int* destination,
                          size_t capacity, unsigned int replacement, int* first_invalid) {
  impl::ConversionProgress const done =
      impl::utf8_to_units_prefix(source, size, destination, capacity);
  size_t count = done.written;
  for (size_t i = done.consumed; i < size;) {
    if (count == capacity) return fail(EINVAL);
    if (byte_at(source, i) < 0x80) {
      size_t run = ascii_run(source + i, size - i);
      size_t room = capacity - count;
      size_t taken = run < room ? run : room;
      widen_ascii(source + i, taken, destination + count);
      count += taken;
      i += taken;
      continue;
    }
    size_t used = decode_common(source + i, size - i, destination + count);
    if (used == 0) used = utf8_to_ucs4_char(source + i, size - i, destination + count);
    if (used != 0) {
      ++count;
      i += used;
      continue;
    }
    record_invalid(first_invalid, i);
    if (replacement == 0)
      raise_invalid_utf8(source + i, size - i, "tqcore::utf8_to_ucs4()", __LINE__);
    destination[count++] = replacement;
    i = skip_ill_formed(source, size, i);
  }
  return count;
}

}  // namespace

size_t utf8_to_ucs4(char const* source, size_t source_size, unsigned int* destination,
                    size_t capacity, unsigned int replacement, int* first_invalid) {
  reset_invalid(first_invalid);
  source_size = source_length(source, source_size);
  if (source_size == 0) return 0;
  if (destination == nullptr) {
    return utf8_to_ucs4_measure(source, source_size, replacement, first_invalid);
  }
  return utf8_to_ucs4_write(source, source_size, destination, capacity, replacement, first_invalid);
}

// ---- Whole-string checks ---------------------------------------------------------------------

int utf8_validate(char const* text, size_t size, size_t* fault_offset) {
  auto const* bytes = reinterpret_cast<unsigned char const*>(text);
  for (size_t i = impl::utf8_valid_prefix(text, size); i < size;) {
    if (bytes[i] < 0x80) {
      i += ascii_run(text + i, size - i);
      continue;
    }
    unsigned int scalar;
    size_t length = decode_common(text + i, size - i, &scalar);
    if (length != 0) {
      i += length;
      continue;
    }
    int status = check_sequence(bytes + i, size - i, &length);
    if (status != utf8_valid) {
      if (fault_offset != nullptr) *fault_offset = i;
      return status;
    }
    i += length;
  }
  return utf8_valid;
}

bool is_valid_utf8(char const* text, size_t size) {
  return utf8_validate(text, size) == utf8_valid;
}

void check_valid_utf8(char const* text, size_t size) {
  ErrorException::throw_if_error(
      utf8_status_error(utf8_validate(text, size), "tqcore::check_valid_utf8()", __LINE__));
}

void make_valid_utf8(char* text, size_t size, char replacement, int* first_invalid) {
  reset_invalid(first_invalid);
  size_t i = 0;
  while (i < size) {
    size_t fault = 0;
    if (utf8_validate(text + i, size - i, &fault) == utf8_valid) return;
    i += fault;
    record_invalid(first_invalid, i);
    size_t end = skip_ill_formed(text, size, i);
    std::memset(text + i, replacement, end - i);
    i = end;
  }
}

size_t utf8_limit_length(char const* text, size_t length, size_t limit) noexcept {
  if (limit >= length) return length;
  if (limit == 0) return 0;
  size_t index = limit;
  while (index > 0 && is_continuation(byte_at(text, index))) --index;
  return index;
}

ErrorInfo::Ptr utf8_status_error(int status, char const* function, unsigned int line) {
  struct Row {
    ErrorCode const* code;
    char const* message;
  };
  static Row const kRows[] = {
      {&error::tqcore_string_utf8_invalid, "Invalid first byte of UTF-8 sequence"},
      {&error::tqcore_string_utf8_partial, "String ends in a partial UTF-8 sequence"},
      {&error::tqcore_string_utf8_overlong, "String contains overlong UTF-8 sequence"},
      {&error::tqcore_string_utf8_invalid, "Invalid subsequent byte in UTF-8 character sequence"},
      {&error::tqcore_string_utf8_invalid,
       "UTF-8 string must not contain UTF-16 surrogates (U+D800...U+DFFF)"},
      {&error::tqcore_string_utf8_invalid, "UTF-8 string must not contain U+FFFE (BOM) character"},
      {&error::tqcore_string_utf8_invalid, "UTF-8 string must not contain U+FEFF (BOM) character"},
      {&error::tqcore_string_utf8_invalid, "UTF-8 string must not contain U+FFFF character"}};
  if (status < utf8_bad_first_byte || status > utf8_ffff) return ErrorInfo::Ptr();
  Row const& row = kRows[status - 1];
  return ErrorInfo::create(*row.code, row.message, SourceLocation(function, kFileId, line));
}

void raise_invalid_utf8(char const* text, size_t size, char const* function, unsigned int line) {
  throw_error(error::tqcore_string_conversion, "Invalid UTF-8 character encountered",
              SourceLocation(function, kFileId, line),
              utf8_status_error(utf8_validate(text, size), function, line));
}

}  // namespace tqcore
