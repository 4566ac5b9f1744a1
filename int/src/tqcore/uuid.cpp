// Uuid: factories, text forms and the sequential clock.
#include <tqcore/abs_rel_time.h>
#include <tqcore/error_code.h>
#include <tqcore/error_exception.h>
#include <tqcore/random.h>
#include <tqcore/thread_mutex.h>
#include <tqcore/transforms.h>
#include <tqcore/uuid.h>

#include <ace/Guard_T.h>

#include <ostream>

#include "file_ids.h"
#include "static_instance_internal.h"
#include "testing_seams.h"
#include "uuid_internal.h"

namespace tqcore {
namespace {

char const kFileId[] = TQCORE_FILE_ID("uuid");

// The bytes in the order the text shows them: the first three fields are little-endian.
constexpr unsigned char kTextOrder[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};

void set_version_and_variant(unsigned char* bytes, unsigned version) noexcept {
  bytes[7] = static_cast<unsigned char>((bytes[7] & 0x0F) | (version & 0x0F) << 4);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
}

void store_le64(unsigned char* out, uint64_t value) noexcept {
  for (int i = 0; i < 8; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint64_t load_le64(unsigned char const* in) noexcept {
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = value << 8 | in[i];
  return value;
}

// ---- Text ------------------------------------------------------------------------------------

struct TextLayout {
  size_t size;
  bool braced;
};

constexpr TextLayout kLayouts[] = {{36, false}, {32, false}, {38, true}};
// Hyphens written before each byte of the text in the separated forms.
constexpr unsigned char kHyphensBefore[16] = {0, 0, 0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 4, 4, 4, 4};

struct HexPairs {
  char pairs[256][2];
  constexpr HexPairs() : pairs() {
    constexpr char const* digits = impl::TransformHelperHex::sm_fromBinaryTable;
    for (int b = 0; b < 256; ++b) {
      pairs[b][0] = digits[b >> 4];
      pairs[b][1] = digits[b & 15];
    }
  }
};
constexpr HexPairs kHexPairs;

struct HexDigits {
  int16_t value[256];  // -1: not a digit
  constexpr HexDigits() : value() {
    for (int c = 0; c < 256; ++c) value[c] = -1;
    for (int d = 0; d < 10; ++d) value['0' + d] = static_cast<int16_t>(d);
    for (int d = 0; d < 6; ++d) {
      value['a' + d] = static_cast<int16_t>(10 + d);
      value['A' + d] = static_cast<int16_t>(10 + d);
    }
  }
};
constexpr HexDigits kHex;

// The separators the size implies; the digits are checked while they are read.
bool separators_fit(char const* text, size_t size) noexcept {
  if (size == 32) return true;
  size_t const offset = size == 38 ? 1 : 0;
  if (size == 38 && (text[0] != '{' || text[37] != '}')) return false;
  if (size != 36 && size != 38) return false;
  return text[8 + offset] == '-' && text[13 + offset] == '-' && text[18 + offset] == '-' &&
         text[23 + offset] == '-';
}

// Where the text of each byte starts, with and without hyphens.
template <bool kSeparated>
constexpr size_t text_offset(int i) {
  return 2 * i + (kSeparated ? kHyphensBefore[i] : 0);
}

template <bool kSeparated>
bool parse_digits(char const* start, unsigned char* bytes) noexcept {
  for (int i = 0; i < 16; ++i) {
    char const* const p = start + text_offset<kSeparated>(i);
    int const high = kHex.value[static_cast<unsigned char>(p[0])];
    int const low = kHex.value[static_cast<unsigned char>(p[1])];
    if ((high | low) < 0) return false;
    bytes[kTextOrder[i]] = static_cast<unsigned char>(high << 4 | low);
  }
  return true;
}

bool parse_digits(char const* text, size_t size, unsigned char* bytes) noexcept {
  if (size == 32) return parse_digits<false>(text, bytes);
  return parse_digits<true>(text + (size == 38 ? 1 : 0), bytes);
}

// ---- The sequential clock --------------------------------------------------------------------

struct SequentialState {
  ThreadMutex mutex;
  int64_t last_time = 0;
  uint16_t counter = 0;
  uint32_t clock_word = 0;  // 0: not drawn yet
  uint32_t node_word = 0;

  void draw_clock_and_node() {
    clock_word = random_uint32();
    node_word = random_uint32();
  }
};

// Never destroyed: identifiers may be made by static instances that end after this file's
// static destructors.
SequentialState& sequential_state() {
  alignas(SequentialState) static unsigned char storage[sizeof(SequentialState)];
  static SequentialState* const state = new (storage) SequentialState;
  return *state;
}

[[maybe_unused]] SequentialState& g_sequentialAtLoad = sequential_state();

}  // namespace

// ---- Construction ----------------------------------------------------------------------------

Uuid::Uuid(BinaryData const& data, EVersion version) noexcept : Uuid(data) {
  set_version_and_variant(m_bytes, version);
}

Uuid::Uuid(EVersion version, unsigned short sequence, NodeAddress const& node,
           uint64_t timestamp) noexcept {
  store_le64(m_bytes, uint64_t(version & 15) << 60 | (timestamp & 0x0FFFFFFFFFFFFFFFull));
  unsigned const field = (sequence & 0x3FFFu) | 0x8000u;
  m_bytes[8] = static_cast<unsigned char>(field >> 8);
  m_bytes[9] = static_cast<unsigned char>(field);
  std::memcpy(m_bytes + 10, node.bytes, 6);
}

Uuid::Uuid(EVersion version, unsigned short sequence, NodeAddress const& node, uint64_t timestamp,
           unsigned char custom_flags) noexcept
    : Uuid(version, sequence, node, 0) {
  uint64_t const high = uint64_t((version & 15u) << 8 | custom_flags) << 52;
  store_le64(m_bytes, high | (timestamp & 0x000FFFFFFFFFFFFFull));
}

Uuid Uuid::create_random() {
  Uuid uuid;
  random_fill(uuid.m_bytes, 16);
  set_version_and_variant(uuid.m_bytes, Random);
  return uuid;
}

Uuid Uuid::create_random(unsigned char custom_flags) {
  Uuid uuid = create_random();
  uuid.m_bytes[6] =
      static_cast<unsigned char>((uuid.m_bytes[6] & 0x0F) | (custom_flags & 0x0F) << 4);
  uuid.m_bytes[7] = static_cast<unsigned char>((uuid.m_bytes[7] & 0xF0) | custom_flags >> 4);
  return uuid;
}

namespace {

// The clock is read under the lock: identifiers are ordered as the lock orders the calls.
template <class Clock>
Uuid make_sequential(Clock clock) {
  uint16_t counter;
  uint32_t clock_word, node_word;
  int64_t now;
  {
    SequentialState& s = sequential_state();
    ACE_Guard<ThreadMutex> guard(s.mutex);
    if (s.clock_word == 0) s.draw_clock_and_node();
    now = clock();
    if (now < s.last_time) {
      s.draw_clock_and_node();  // the clock went back: a new sequence, unrelated to the old
      s.counter = 0;
    } else if (now != s.last_time) {
      s.counter = 0;
    }
    s.last_time = now;
    if (++s.counter == 0) {
      // Bytes 10 to 13 read as one big-endian number go up by one: byte order stays age order.
      s.node_word = __builtin_bswap32(__builtin_bswap32(s.node_word) + 1);
    }
    counter = s.counter;
    clock_word = s.clock_word;
    node_word = s.node_word;
  }
  Uuid::BinaryData data;
  unsigned char* b = data.data();
  for (int i = 0; i < 8; ++i) b[i] = static_cast<unsigned char>(uint64_t(now) >> (56 - 8 * i));
  b[7] = 0xD0;
  b[8] = static_cast<unsigned char>((clock_word & 0x0F) | 0x80);
  b[9] = static_cast<unsigned char>(clock_word >> 8);
  std::memcpy(b + 10, &node_word, 4);  // little-endian, as stored
  b[14] = static_cast<unsigned char>(counter >> 8);
  b[15] = static_cast<unsigned char>(counter);
  return Uuid(data);
}

}  // namespace

Uuid Uuid::create_sequential() {
  // Linux's clock moves in nanoseconds; the identifier keeps only the bits above the low eight,
  // so the counter must restart only when those bits change.
  return make_sequential([] { return AbsoluteTime::now().as_nsec() & ~int64_t{0xFF}; });
}

Uuid impl::testing::create_sequential_at(int64_t now) {
  return make_sequential([now] { return now; });
}

void impl::sequential_state_before_fork() { sequential_state().mutex.acquire(); }

void impl::sequential_state_after_fork(bool in_child) {
  SequentialState& s = sequential_state();
  if (in_child) {
    // A child must not continue its parent's sequence: new clock and node words when next used.
    s.clock_word = 0;
    s.counter = 0;
    s.last_time = 0;
  }
  s.mutex.release();
}

Uuid Uuid::create_legacy_interaction_id(unsigned int id, unsigned char flags) {
  return legacy_interaction_id_of(id, flags, true);
}

Uuid Uuid::create_unresolved_legacy_interaction_id(unsigned int id, unsigned char flags) {
  return legacy_interaction_id_of(id, flags, false);
}

// Bytes 0 to 9 random (never eight leading zero bytes) or zero, the flags, ten BCD digits.
Uuid Uuid::legacy_interaction_id_of(unsigned int id, unsigned char flags, bool random) {
  Uuid uuid;
  unsigned char* b = uuid.m_bytes;
  while (random && load_le64(b) == 0) random_fill(b, 10);
  b[10] = flags;
  for (int i = 15; i >= 11; --i) {
    b[i] = static_cast<unsigned char>((id / 10 % 10) << 4 | id % 10);
    id /= 100;
  }
  set_version_and_variant(b, LegacyInteractionId);
  return uuid;
}

// ---- Queries ---------------------------------------------------------------------------------

uint64_t Uuid::timestamp() const noexcept {
  uint64_t word = load_le64(m_bytes);
  if (version() == Sequential) word = __builtin_bswap64(word);
  return word & 0x0FFFFFFFFFFFFFFFull;
}

unsigned int Uuid::legacy_interaction_id() const noexcept {
  if (version() != LegacyInteractionId) return 0;
  unsigned int id = 0;  // ten digits may exceed 32 bits: the value wraps
  for (int i = 11; i <= 15; ++i) id = id * 100 + (m_bytes[i] >> 4) * 10 + (m_bytes[i] & 0x0F);
  return id;
}

bool Uuid::is_unresolved_legacy_interaction_id() const noexcept {
  static constexpr unsigned char kZero[7] = {};
  return version() == LegacyInteractionId && std::memcmp(m_bytes, kZero, 7) == 0 &&
         (m_bytes[7] & 0x0F) == 0 && (m_bytes[8] & 0x3F) == 0 && m_bytes[9] == 0;
}

bool Uuid::StringLess::operator()(Uuid const& a, Uuid const& b) const noexcept {
  for (unsigned char i : kTextOrder) {
    if (a.m_bytes[i] != b.m_bytes[i]) return a.m_bytes[i] < b.m_bytes[i];
  }
  return false;
}

// ---- Text forms ------------------------------------------------------------------------------

size_t Uuid::as_string(EFormat format, char* buffer) const noexcept {
  if (static_cast<unsigned>(format) > Braced) {
    buffer[0] = '\0';
    return 0;
  }
  TextLayout const layout = kLayouts[format];
  bool const separated = format != Compact;
  char* const start = buffer + (layout.braced ? 1 : 0);
  // Two digits a byte from one table read, at fixed places: no branch per byte.
  for (int i = 0; i < 16; ++i) {
    size_t const at = separated ? text_offset<true>(i) : text_offset<false>(i);
    std::memcpy(start + at, kHexPairs.pairs[m_bytes[kTextOrder[i]]], 2);
  }
  if (separated) start[8] = start[13] = start[18] = start[23] = '-';
  if (layout.braced) {
    buffer[0] = '{';
    buffer[37] = '}';
  }
  buffer[layout.size] = '\0';
  return layout.size;
}

std::string Uuid::as_string(EFormat format) const {
  char buffer[kMaxTextSize];
  size_t const size = as_string(format, buffer);
  return std::string(buffer, size);
}

bool Uuid::from_string_nothrow(char const* text, size_t size, Uuid* out) noexcept {
  if (text == nullptr || !separators_fit(text, size)) return false;
  unsigned char bytes[16];
  if (!parse_digits(text, size, bytes)) return false;
  if (out != nullptr) std::memcpy(out->m_bytes, bytes, 16);
  return true;
}

bool Uuid::from_string_nothrow(char const* text, Uuid* out) noexcept {
  return text != nullptr && from_string_nothrow(text, std::strlen(text), out);
}

Uuid Uuid::from_string(char const* text, size_t size) {
  Uuid uuid;
  if (!from_string_nothrow(text, size, &uuid)) {
    throw_with_nested_errno(error::tqcore_uuid_parse, "Failed to parse UUID from string",
                            SourceLocation("tqcore::Uuid::from_string()", kFileId, __LINE__),
                            EINVAL);
  }
  return uuid;
}

Uuid Uuid::from_string(char const* text) {
  return from_string(text, text == nullptr ? 0 : std::strlen(text));
}

std::ostream& operator<<(std::ostream& stream, Uuid const& uuid) {
  return stream << Uuid::Trace(uuid, Uuid::Hyphenated);
}

std::ostream& operator<<(std::ostream& stream, Uuid::Trace const& trace) {
  char buffer[Uuid::kMaxTextSize];
  size_t const size = trace.uuid().as_string(trace.format(), buffer);
  return stream.write(buffer, static_cast<std::streamsize>(size));
}

}  // namespace tqcore
