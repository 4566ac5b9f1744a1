/// @file
/// Uuid: a 128-bit identifier, a plain 16-byte value in the byte order of the Windows GUID.
/// Besides random identifiers (version 4) it makes sequential ones (version 13: a big-endian
/// timestamp, so byte order is creation order within a process) and legacy interaction ids
/// (version 12: a decimal number of up to ten digits kept as binary-coded decimal).
///
/// Failures: `from_string` raises "error.tqcore.uuid.parse"; `from_string_nothrow` returns false
/// and leaves its output alone. Making identifiers never raises.
///
/// @code
/// tqcore::Uuid const id = tqcore::Uuid::create_sequential();  // sorts by creation time
/// std::string const text = id.as_string();
/// tqcore::Uuid const back = tqcore::Uuid::from_string(text.c_str());  // raises on bad text
/// @endcode
#pragma once

#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace tqcore {

namespace win32 {
/// The Windows GUID: the same 16 bytes as a Uuid.
struct Guid {
  uint32_t data1;
  uint16_t data2;
  uint16_t data3;
  unsigned char data4[8];
};
}  // namespace win32

class TQCORE_EXPORT Uuid {
 public:
  /// The high nibble of byte 7. Other values are kept as found.
  enum EVersion : unsigned char { Random = 4, LegacyInteractionId = 12, Sequential = 13 };
  enum EFormat { Hyphenated = 0, Compact = 1, Braced = 2 };
  /// Room for the longest text form and its terminating zero.
  static constexpr size_t kMaxTextSize = 39;

  class BinaryData {
   public:
    unsigned char* data() noexcept { return m_bytes; }
    unsigned char const* data() const noexcept { return m_bytes; }
    static constexpr size_t size() noexcept { return 16; }

   private:
    unsigned char m_bytes[16] = {};
  };

  struct NodeAddress {
    unsigned char bytes[6] = {};
  };

  /// Writes a Uuid in a chosen form; keeps a pointer, so the Uuid must outlive it.
  class Trace {
   public:
    Trace(Uuid const& uuid, EFormat format) noexcept : m_uuid(&uuid), m_format(format) {}
    Uuid const& uuid() const noexcept { return *m_uuid; }
    EFormat format() const noexcept { return m_format; }

   private:
    Uuid const* m_uuid;
    EFormat m_format;
  };

  /// The order of the text: field by field as numbers, unlike operator<.
  struct TQCORE_EXPORT StringLess {
    bool operator()(Uuid const& a, Uuid const& b) const noexcept;
  };

  constexpr Uuid() noexcept : m_bytes{} {}
  explicit Uuid(BinaryData const& data) noexcept { std::memcpy(m_bytes, data.data(), 16); }
  explicit Uuid(win32::Guid const& guid) noexcept { std::memcpy(m_bytes, &guid, 16); }
  /// Copies, then sets the version nibble and the variant bits 1 and 0.
  Uuid(BinaryData const& data, EVersion version) noexcept;
  /// Bytes 0-7: the version over the low 60 bits of `timestamp`; the 14-bit sequence with the
  /// variant; the node.
  Uuid(EVersion version, unsigned short sequence, NodeAddress const& node,
       uint64_t timestamp) noexcept;
  /// The same with eight flag bits in place of the timestamp's bits 52 to 59.
  Uuid(EVersion version, unsigned short sequence, NodeAddress const& node, uint64_t timestamp,
       unsigned char custom_flags) noexcept;

  static Uuid from_windows_guid(win32::Guid const& guid) noexcept { return Uuid(guid); }
  win32::Guid as_windows_guid() const noexcept {
    win32::Guid guid;
    std::memcpy(&guid, m_bytes, 16);
    return guid;
  }

  static Uuid create_random();
  /// Random, with the flags in the high nibble of byte 6 and the low nibble of byte 7.
  static Uuid create_random(unsigned char custom_flags);
  /// Strictly increasing by operator< within a process, unless the clock goes back.
  static Uuid create_sequential();
  static Uuid create_legacy_interaction_id(unsigned int id, unsigned char flags = 0);
  static Uuid create_unresolved_legacy_interaction_id(unsigned int id, unsigned char flags = 0);

  /// The three forms (32, 36 or 38 characters, chosen by the size), any case of digits, no
  /// white space. Raises "error.tqcore.uuid.parse" with EINVAL as the cause.
  static Uuid from_string(char const* text);
  static Uuid from_string(char const* text, size_t size);
  static Uuid from_string(std::string_view text) { return from_string(text.data(), text.size()); }
  /// False for a bad text, leaving `out` alone; a null `out` only checks.
  static bool from_string_nothrow(char const* text, Uuid* out) noexcept;
  static bool from_string_nothrow(char const* text, size_t size, Uuid* out) noexcept;
  /// Copies 16 bytes unless `source` is null; returns 16 either way.
  static size_t read_binary(unsigned char const* source, Uuid& out) noexcept {
    if (source != nullptr) std::memcpy(out.m_bytes, source, 16);
    return 16;
  }

  bool is_null() const noexcept { return (low_word() | high_word()) == 0; }
  void clear() noexcept { *this = Uuid(); }
  void swap(Uuid& other) noexcept { std::swap(*this, other); }
  EVersion version() const noexcept { return static_cast<EVersion>(m_bytes[7] >> 4); }
  unsigned char custom_flags() const noexcept {
    return static_cast<unsigned char>((m_bytes[7] & 0x0F) << 4 | m_bytes[6] >> 4);
  }
  /// The 60-bit timestamp; for a sequential Uuid, the clock with its low byte read as 0xD0.
  uint64_t timestamp() const noexcept;
  unsigned short sequence() const noexcept {
    return static_cast<unsigned short>((m_bytes[8] << 8 | m_bytes[9]) & 0x3FFF);
  }
  void get_node_address(NodeAddress& node) const noexcept {
    std::memcpy(node.bytes, m_bytes + 10, 6);
  }
  void get_binary_data(BinaryData& data) const noexcept { std::memcpy(data.data(), m_bytes, 16); }
  size_t write_binary(unsigned char* dest) const noexcept {
    if (dest != nullptr) std::memcpy(dest, m_bytes, 16);
    return 16;
  }
  unsigned char const* bytes() const noexcept { return m_bytes; }
  size_t hash() const noexcept {
    uint64_t const x = low_word() ^ high_word();
    return static_cast<size_t>((x >> 32) ^ x);
  }

  /// An unknown format gives the empty string.
  std::string as_string(EFormat format = Hyphenated) const;
  /// Writes the text and a terminating zero into `buffer` (kMaxTextSize bytes are always
  /// enough) and returns its length; 0 and an empty text for an unknown format. No allocation.
  size_t as_string(EFormat format, char* buffer) const noexcept;

  /// 0 unless version 12: the decimal number kept in bytes 11 to 15, computed in 32 bits.
  unsigned int legacy_interaction_id() const noexcept;
  unsigned char legacy_interaction_id_flags() const noexcept {
    return version() == LegacyInteractionId ? m_bytes[10] : 0;
  }
  bool is_unresolved_legacy_interaction_id() const noexcept;

  friend bool operator==(Uuid const& a, Uuid const& b) noexcept {
    return a.low_word() == b.low_word() && a.high_word() == b.high_word();
  }
  friend bool operator!=(Uuid const& a, Uuid const& b) noexcept { return !(a == b); }
  /// Byte order, not text order: sequential identifiers sort by age.
  friend bool operator<(Uuid const& a, Uuid const& b) noexcept {
    return std::memcmp(a.m_bytes, b.m_bytes, 16) < 0;
  }
  friend bool operator>(Uuid const& a, Uuid const& b) noexcept { return b < a; }
  friend bool operator<=(Uuid const& a, Uuid const& b) noexcept { return !(b < a); }
  friend bool operator>=(Uuid const& a, Uuid const& b) noexcept { return !(a < b); }

 private:
  static Uuid legacy_interaction_id_of(unsigned int id, unsigned char flags, bool random);
  uint64_t low_word() const noexcept {
    uint64_t word;
    std::memcpy(&word, m_bytes, 8);
    return word;
  }
  uint64_t high_word() const noexcept {
    uint64_t word;
    std::memcpy(&word, m_bytes + 8, 8);
    return word;
  }

  alignas(8) unsigned char m_bytes[16];
};

TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, Uuid const& uuid);
TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, Uuid::Trace const& trace);

}  // namespace tqcore

namespace std {
template <>
struct hash<tqcore::Uuid> {
  size_t operator()(tqcore::Uuid const& uuid) const noexcept { return uuid.hash(); }
};
}  // namespace std
