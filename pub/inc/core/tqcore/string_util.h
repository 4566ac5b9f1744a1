/// @file
/// Plain-ASCII text helpers that do not depend on a locale, substring ranges, and the adapter
/// that lets slice code treat five kinds of string pointer alike.
///
/// Failures: none but std::bad_alloc for the functions that return a new string.
///
/// @code
/// std::string const a = "Content-Length", b = "content-length";
/// bool const same = tqcore::string_equal_nocase_ascii(a.data(), a.size(), b.data(), b.size());
/// std::string const lower = tqcore::to_lower_ascii(a.data(), a.size());  // ASCII only
/// @endcode
#pragma once

#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <ostream>
#include <string>
#include <utility>

namespace tqcore {

TQCORE_EXPORT extern std::string const g_emptyString;
TQCORE_EXPORT extern std::wstring const g_emptyWString;

/// In all of these a size of all ones means that the text ends at its terminator. Only 'A'-'Z'
/// and 'a'-'z' fold; bytes from 0x80 up never change.
TQCORE_EXPORT bool string_equal_nocase_ascii(char const* a, size_t a_size, char const* b,
                                             size_t b_size);
/// At the first difference, the folded byte of a minus that of b (as signed char); otherwise
/// the difference of the sizes.
TQCORE_EXPORT int compare_nocase_ascii(char const* a, size_t a_size, char const* b, size_t b_size);
/// h = h * 5 + c over the folded bytes (c sign-extended), in 32 bits: texts that differ only
/// in case hash alike.
TQCORE_EXPORT size_t string_hash_lowercase_ascii(char const* text, size_t size);
TQCORE_EXPORT size_t string_hash_uppercase_ascii(char const* text, size_t size);
TQCORE_EXPORT std::string to_lower_ascii(char const* text, size_t size);
TQCORE_EXPORT std::string to_upper_ascii(char const* text, size_t size);
TQCORE_EXPORT void to_lower_ascii_inplace(std::string& text);
TQCORE_EXPORT void to_upper_ascii_inplace(std::string& text);

/// A substring as a position and a length; all ones is npos: as `first` a position past every
/// string, as `length` "up to the end" (unbounded). Arithmetic saturates at npos.
class StringRange {
 public:
  static constexpr size_t npos = static_cast<size_t>(-1);

  constexpr StringRange() noexcept : m_first(0), m_length(0) {}
  constexpr StringRange(size_t first, size_t length) noexcept : m_first(first), m_length(length) {}

  constexpr size_t first() const noexcept { return m_first; }
  constexpr size_t length() const noexcept { return m_length; }
  StringRange& first(size_t value) noexcept {
    m_first = value;
    return *this;
  }
  StringRange& length(size_t value) noexcept {
    m_length = value;
    return *this;
  }
  static constexpr bool is_npos(size_t value) noexcept { return value == npos; }
  constexpr bool empty() const noexcept { return m_length == 0 || m_first == npos; }
  constexpr bool unbounded() const noexcept { return m_length == npos; }
  /// The position behind the range; npos if the sum wraps.
  constexpr size_t last() const noexcept {
    return m_first + m_length < m_first ? npos : m_first + m_length;
  }
  /// Sets the length so that the range ends before `n`; npos makes it unbounded.
  StringRange& last(size_t n) noexcept;
  void set(size_t first, size_t length) noexcept {
    m_first = first;
    m_length = length;
  }
  StringRange& clear() noexcept {
    set(0, 0);
    return *this;
  }
  void swap(StringRange& other) noexcept {
    std::swap(m_first, other.m_first);
    std::swap(m_length, other.m_length);
  }
  StringRange& shrink(size_t front, size_t back) noexcept;
  /// `first` counts from this range's start; the result stays inside this range.
  StringRange subrange(size_t first, size_t length) const noexcept;
  StringRange subrange(StringRange const& other) const noexcept {
    return subrange(other.m_first, other.m_length);
  }
  StringRange intersection(size_t first, size_t length) const noexcept;
  StringRange intersection(StringRange const& other) const noexcept {
    return intersection(other.m_first, other.m_length);
  }

  constexpr bool operator==(StringRange const& o) const noexcept {
    return m_first == o.m_first && m_length == o.m_length;
  }
  constexpr bool operator!=(StringRange const& o) const noexcept { return !(*this == o); }
  constexpr bool operator<(StringRange const& o) const noexcept {
    return m_first != o.m_first ? m_first < o.m_first : m_length < o.m_length;
  }
  constexpr bool operator<=(StringRange const& o) const noexcept { return !(o < *this); }
  constexpr bool operator>(StringRange const& o) const noexcept { return o < *this; }
  constexpr bool operator>=(StringRange const& o) const noexcept { return !(*this < o); }

 private:
  size_t m_first;
  size_t m_length;
};

inline StringRange& StringRange::last(size_t n) noexcept {
  if (n != npos || m_first == n) {
    m_length = n > m_first ? n - m_first : 0;
  } else {
    m_length = npos;
  }
  return *this;
}

inline StringRange& StringRange::shrink(size_t front, size_t back) noexcept {
  if (unbounded()) {
    if (m_first != npos) m_first += front;
  } else if (front != npos && back != npos && front + back >= front && front + back < m_length) {
    m_first += front;
    m_length -= front + back;
  } else {
    clear();
  }
  return *this;
}

inline StringRange StringRange::subrange(size_t first, size_t length) const noexcept {
  size_t const end = last();
  if (m_first == npos) return StringRange(npos, 0);
  size_t position = m_first + first < m_first ? npos : m_first + first;
  if (position > end) position = end;
  if (position == npos) return StringRange(npos, 0);
  if (end != npos) return StringRange(position, end - position < length ? end - position : length);
  return StringRange(position, length);
}

inline StringRange StringRange::intersection(size_t first, size_t length) const noexcept {
  size_t const start = m_first > first ? m_first : first;
  if (start == npos) return StringRange(0, 0);
  size_t const other_end = first + length < first ? npos : first + length;
  size_t const end = last() < other_end ? last() : other_end;
  if (end < start) return StringRange(0, 0);
  return StringRange(start, end == npos ? npos : end - start);
}

inline void swap(StringRange& a, StringRange& b) noexcept { a.swap(b); }

/// Lets slice code work alike on `char const*`, `wchar_t const*`, `std::string const*`,
/// `std::wstring const*` and `SourceString const*`.
template <class T>
struct StringSliceTraits;

namespace impl {

/// The members that all five kinds share, given how each finds its data and size.
template <class T, class Char, class Derived>
struct StringSliceTraitsBase {
  using char_type = Char;
  using ostream_type = std::basic_ostream<Char>;

  static bool is_null_pointer(T p) noexcept { return p == nullptr; }
  static bool equal_pointers(T a, T b) noexcept { return a == b; }
  static Char const* string_begin(T p, StringRange const& range) {
    return Derived::string_data(p) + range.first();
  }
  static Char const* string_end(T p, StringRange const& range) {
    return Derived::string_data(p) + range.last();
  }
  static std::reverse_iterator<Char const*> string_rbegin(T p, StringRange const& range) {
    return std::reverse_iterator<Char const*>(string_end(p, range));
  }
  static std::reverse_iterator<Char const*> string_rend(T p, StringRange const& range) {
    return std::reverse_iterator<Char const*>(string_begin(p, range));
  }
  /// Unformatted without a field width; with one, as a formatted string so that width, fill
  /// and adjustment apply.
  static void write_stream(ostream_type& stream, T p, StringRange const& range) {
    Char const* begin = string_begin(p, range);
    std::streamsize count = string_end(p, range) - begin;
    if (stream.width() == 0) {
      stream.write(begin, count);
    } else {
      stream << std::basic_string<Char>(begin, static_cast<size_t>(count));
    }
  }
};

}  // namespace impl

template <>
struct StringSliceTraits<char const*>
    : impl::StringSliceTraitsBase<char const*, char, StringSliceTraits<char const*>> {
  static char const* empty_string_pointer() noexcept { return ""; }
  static char const* string_data(char const* p) noexcept { return p; }
  static size_t string_size(char const* p) noexcept { return std::strlen(p); }
};

template <>
struct StringSliceTraits<wchar_t const*>
    : impl::StringSliceTraitsBase<wchar_t const*, wchar_t, StringSliceTraits<wchar_t const*>> {
  static wchar_t const* empty_string_pointer() noexcept { return L""; }
  static wchar_t const* string_data(wchar_t const* p) noexcept { return p; }
  static size_t string_size(wchar_t const* p) noexcept { return std::wcslen(p); }
};

template <>
struct StringSliceTraits<std::string const*>
    : impl::StringSliceTraitsBase<std::string const*, char, StringSliceTraits<std::string const*>> {
  static std::string const* empty_string_pointer() noexcept { return &g_emptyString; }
  static char const* string_data(std::string const* p) noexcept { return p->data(); }
  static size_t string_size(std::string const* p) noexcept { return p->size(); }
};

template <>
struct StringSliceTraits<std::wstring const*>
    : impl::StringSliceTraitsBase<std::wstring const*, wchar_t,
                                  StringSliceTraits<std::wstring const*>> {
  static std::wstring const* empty_string_pointer() noexcept { return &g_emptyWString; }
  static wchar_t const* string_data(std::wstring const* p) noexcept { return p->data(); }
  static size_t string_size(std::wstring const* p) noexcept { return p->size(); }
};

template <>
struct StringSliceTraits<SourceString const*>
    : impl::StringSliceTraitsBase<SourceString const*, char,
                                  StringSliceTraits<SourceString const*>> {
  static SourceString const* empty_string_pointer() noexcept {
    static SourceString const empty;
    return &empty;
  }
  static char const* string_data(SourceString const* p) noexcept { return p->data(); }
  static size_t string_size(SourceString const* p) noexcept { return p->size(); }
};

}  // namespace tqcore
