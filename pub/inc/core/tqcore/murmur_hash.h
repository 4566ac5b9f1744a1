/// @file
/// The library's hash of byte strings: MurmurHash3 x64 128 with a 64-bit seed, folded to 64 bits
/// (the sum of its two halves). Seeded at random once per process, so values differ between
/// runs: use it for tables, never for anything stored or sent.
///
/// Failures: none; no call allocates.
///
/// @code
/// std::string const text = "orders";
/// uint64_t const h = tqcore::murmur_hash(text.data(), text.size());  // differs from run to run
/// @endcode
#pragma once

#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tqcore {

TQCORE_EXPORT uint64_t murmur_hash(void const* data, size_t size);
inline uint64_t murmur_hash(char const* data, size_t size) {
  return murmur_hash(static_cast<void const*>(data), size);
}
inline uint64_t murmur_hash(std::string_view text) { return murmur_hash(text.data(), text.size()); }
/// `size` counts characters. The text is hashed in its UTF-16 form, as on every platform of the
/// family; a value above U+10FFFF hashes as U+FFFD, and a lone surrogate as its own unit.
TQCORE_EXPORT uint64_t murmur_hash(wchar_t const* data, size_t size);

/// Incremental form: any split of the input gives the digest of the whole.
class TQCORE_EXPORT MurmurHashContext {
 public:
  MurmurHashContext();  ///< the process seed
  explicit MurmurHashContext(uint64_t seed);
  MurmurHashContext(MurmurHashContext const& other);
  MurmurHashContext& operator=(MurmurHashContext other) noexcept {
    swap(other);
    return *this;
  }
  ~MurmurHashContext();
  void swap(MurmurHashContext& other) noexcept {
    State* s = m_state;
    m_state = other.m_state;
    other.m_state = s;
  }

  void reset() noexcept;
  MurmurHashContext& update(void const* data, size_t size) noexcept;
  MurmurHashContext& update(char const* data, size_t size) noexcept {
    return update(static_cast<void const*>(data), size);
  }
  /// The UTF-16 form of the text, as murmur_hash(wchar_t const*, size_t).
  MurmurHashContext& update(wchar_t const* data, size_t size) noexcept;
  /// The digest of what was fed so far; more can be fed afterwards.
  uint64_t calculate_digest() const noexcept;

  struct State;

 private:
  State* m_state;
};

/// For hash containers.
struct MurmurHashFunct {
  size_t operator()(std::string_view text) const noexcept {
    return static_cast<size_t>(murmur_hash(text.data(), text.size()));
  }
  size_t operator()(std::wstring_view text) const noexcept {
    return static_cast<size_t>(murmur_hash(text.data(), text.size()));
  }
};

}  // namespace tqcore
