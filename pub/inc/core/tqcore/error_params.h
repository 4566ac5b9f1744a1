/// @file
/// ErrorParams: the named values of one error, and expansion of "{@name}" message templates.
///
/// Failures: adding and expanding raise only std::bad_alloc; a placeholder of an unknown name stays
/// as written.
///
/// @code
/// tqcore::ErrorParams params;
/// params.add(tqcore::SourceString::create_reference("host"), "db1.example.org");
/// params.add(tqcore::SourceString::create_reference("port"), "5432");
/// // With the template "No route to {@host}:{@port}." the message reads
/// // "No route to db1.example.org:5432."
/// @endcode
#pragma once

#include <tqcore/refcount_ptr.h>
#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>

namespace tqcore {

/// An ordered map from names to text values. Names may be references to literals, so a
/// literal name costs no copy; an empty set allocates nothing.
class TQCORE_EXPORT ErrorParams {
  struct KeyLess {
    bool operator()(SourceString const& a, SourceString const& b) const noexcept {
      return a.compare(b) < 0;
    }
  };
  using Map = std::map<SourceString, std::string, KeyLess>;

 public:
  static constexpr size_t npos = SourceString::npos;
  using value_type = Map::value_type;
  using const_iterator = Map::const_iterator;
  using iterator = Map::const_iterator;

  ErrorParams() = default;
  ErrorParams(ErrorParams const&) = default;
  ErrorParams(ErrorParams&&) noexcept = default;
  ErrorParams(TransferSource<ErrorParams> source) noexcept
      : m_entries(std::move(source.source().m_entries)) {
    source.source().m_entries.clear();
  }
  ErrorParams& operator=(ErrorParams const&) = default;
  ErrorParams& operator=(ErrorParams&&) noexcept = default;
  ErrorParams& operator=(TransferSource<ErrorParams> source) noexcept {
    assign(source);
    return *this;
  }
  void assign(TransferSource<ErrorParams> source) noexcept {
    ErrorParams taken(source);
    swap(taken);
  }
  TransferSource<ErrorParams> transfer() noexcept { return TransferSource<ErrorParams>(*this); }
  void swap(ErrorParams& other) noexcept { m_entries.swap(other.m_entries); }
  void clear() noexcept { m_entries.clear(); }

  bool empty() const noexcept { return m_entries.empty(); }
  size_t size() const noexcept { return m_entries.size(); }
  const_iterator begin() const noexcept { return m_entries.begin(); }
  const_iterator end() const noexcept { return m_entries.end(); }
  /// `length` may be npos throughout.
  const_iterator find(char const* name, size_t length = npos) const;
  size_t count(char const* name, size_t length = npos) const {
    return find(name, length) == end() ? 0 : 1;
  }

  /// Sets the value of `name`. A new name is stored as a copy; an existing one keeps its place
  /// and gets the new value.
  ErrorParams& add(char const* name, size_t name_length, char const* value, size_t value_length);
  ErrorParams& add_string(char const* name, size_t name_length, char const* value,
                          size_t value_length) {
    return add(name, name_length, value, value_length);
  }
  /// Sets the value of `name` sharing its text: pass SourceString::create_reference("literal")
  /// for a name that costs no copy.
  ErrorParams& add(SourceString const& name, std::string_view value) {
    insert_ref(name).assign(value.data(), value.size());
    return *this;
  }
  /// Sets every entry of `other` here, sharing the names; the values of `other` win.
  ErrorParams& add(ErrorParams const& other);

  /// The value of `name`, or an empty string if it is absent.
  std::string const& get_value(char const* name, size_t length = npos) const;
  /// True if `name` is present; then its value is assigned to `*value` unless that is null.
  bool query_value(char const* name, size_t length, std::string* value) const;

  int compare(ErrorParams const& other) const;
  bool operator==(ErrorParams const& other) const;
  bool operator!=(ErrorParams const& other) const { return !(*this == other); }
  bool operator<(ErrorParams const& other) const { return compare(other) < 0; }
  bool operator<=(ErrorParams const& other) const { return compare(other) <= 0; }
  bool operator>(ErrorParams const& other) const { return compare(other) > 0; }
  bool operator>=(ErrorParams const& other) const { return compare(other) >= 0; }

  uint64_t hash() const noexcept;

  /// Each entry as 'name' => "value" (names cut at 128 bytes, values at 256, on UTF-8
  /// boundaries, with "..."), `separator` between entries.
  void write_trace(std::ostream& stream, char const* separator) const;

  /// The message with every placeholder of a known name replaced by its value. A message with
  /// no placeholder comes back as it is: the SourceString form does not even allocate, while
  /// the pointer form copies `length` bytes exactly as given (so npos throws there).
  SourceString expanded_message(char const* text, size_t length) const;
  SourceString expanded_message(SourceString const& text) const;
  /// The same, with each inserted value cut at `limit` bytes (on a UTF-8 boundary) plus "...".
  SourceString expanded_message_with_limit(char const* text, size_t length, size_t limit) const;
  SourceString expanded_message_with_limit(SourceString const& text, size_t limit) const;

 private:
  std::string& insert_ref(char const* name, size_t length);
  std::string& insert_ref(SourceString const& name);

  Map m_entries;
};

inline void swap(ErrorParams& a, ErrorParams& b) noexcept { a.swap(b); }

namespace impl {
/// The 32-bit text hash and the 64-bit fold shared by the hashes of the error model.
inline uint32_t error_text_hash(char const* text, size_t length) noexcept {
  uint32_t h = 0;
  for (size_t i = 0; i < length; ++i) {
    h = h * 5 + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(text[i])));
  }
  return h;
}
inline uint64_t error_hash_fold(uint64_t r, uint64_t t) noexcept {
  return r ^ (t + (r << 6) + (r >> 2) + 0x9e3779b9ULL);
}
}  // namespace impl

}  // namespace tqcore
