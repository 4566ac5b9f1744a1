/// @file
/// Small value objects that write what a log line wants to show: booleans as words, numbers and
/// pointers in hexadecimal, strings quoted and cut, memory as hex dumps. They hold references,
/// not copies, and live for one stream expression.
///
/// Failures: the streamers raise only what the stream raises; bad text is shown escaped, never
/// rejected.
///
/// @code
/// std::string const name = "config";
/// std::cout << tqcore::streamers::String(name.data(), name.size())  // "config", quoted
///           << ' ' << tqcore::streamers::Hex(42, true) << '\n';     // 0x0000002a
/// @endcode
#pragma once

#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <ostream>
#include <streambuf>
#include <type_traits>

namespace tqcore {
namespace streamers {

/// The empty base through which operator<< reaches T::write_trace.
template <class T>
struct Streamable {};

template <class T>
std::ostream& operator<<(std::ostream& stream, Streamable<T> const& streamable) {
  static_cast<T const&>(streamable).write_trace(stream);
  return stream;
}

class TQCORE_EXPORT Boolean : public Streamable<Boolean> {
 public:
  explicit Boolean(bool value) noexcept : m_value(value) {}
  void write_trace(std::ostream& stream) const { stream << (m_value ? "true" : "false"); }

 private:
  bool m_value;
};

/// "0x" and lower-case digits; padded shows twice the type's size in digits.
class TQCORE_EXPORT Hex : public Streamable<Hex> {
 public:
  template <class T,
            class = std::enable_if_t<std::is_integral<T>::value && !std::is_same<T, bool>::value>>
  Hex(T value, bool padded) noexcept
      : m_value(static_cast<std::make_unsigned_t<T>>(value)),
        m_digits(padded ? 2 * sizeof(T) : 0) {}
  Hex(void const* value, bool padded) noexcept
      : m_value(reinterpret_cast<uintptr_t>(value)), m_digits(padded ? 16 : 0) {}
  void write_trace(std::ostream& stream) const { write_trace_impl(stream, m_value, m_digits); }
  static void write_trace_impl(std::ostream& stream, unsigned long long value,
                               unsigned long long digits);

 private:
  unsigned long long m_value;
  size_t m_digits;
};

class TQCORE_EXPORT Pointer : public Streamable<Pointer> {
 public:
  explicit Pointer(void const* value) noexcept : m_value(value) {}
  void write_trace(std::ostream& stream) const { write_trace_impl(stream, m_value); }
  static void write_trace_impl(std::ostream& stream, void const* value);

 private:
  void const* m_value;
};

/// Quoted (unless the quote is 0) and cut at `maximum` bytes on a UTF-8 boundary, with "...".
class TQCORE_EXPORT String : public Streamable<String> {
 public:
  static constexpr size_t maxlenDefault = 256;

  explicit String(char const* text) noexcept
      : String(text, text != nullptr ? std::strlen(text) : 0) {}
  String(char const* text, size_t length) noexcept : String(text, length, maxlenDefault, '"') {}
  String(char const* text, size_t length, size_t maximum, char quote) noexcept
      : m_text(text), m_length(length), m_maximum(maximum), m_quote(quote) {}
  void write_trace(std::ostream& stream) const {
    write_string(stream, m_text, m_length, m_maximum, m_quote);
  }
  static void write_string(std::ostream& stream, char const* text, size_t length, size_t maximum,
                           char quote);

 private:
  char const* m_text;
  size_t m_length;
  size_t m_maximum;
  char m_quote;
};

/// Converted to UTF-8 ('?' for what cannot be), then written as String does; the maximum
/// counts UTF-8 bytes.
class TQCORE_EXPORT WString : public Streamable<WString> {
 public:
  static constexpr size_t maxlenDefault = 256;

  explicit WString(wchar_t const* text) noexcept
      : WString(text, text != nullptr ? std::wcslen(text) : 0) {}
  WString(wchar_t const* text, size_t length) noexcept
      : WString(text, length, maxlenDefault, '"') {}
  WString(wchar_t const* text, size_t length, size_t maximum, char quote) noexcept
      : m_text(text), m_length(length), m_maximum(maximum), m_quote(quote) {}
  void write_trace(std::ostream& stream) const {
    write_string(stream, m_text, m_length, m_maximum, m_quote);
  }
  static void write_string(std::ostream& stream, wchar_t const* text, size_t length, size_t maximum,
                           char quote);

 private:
  wchar_t const* m_text;
  size_t m_length;
  size_t m_maximum;
  char m_quote;
};

class TQCORE_EXPORT HexDump : public Streamable<HexDump> {
 public:
  HexDump(void const* data, size_t size) noexcept : HexDump(data, size, data, nullptr) {}
  HexDump(void const* data, size_t size, char const* prefix) noexcept
      : HexDump(data, size, data, prefix) {}
  HexDump(void const* data, size_t size, void const* address, char const* prefix) noexcept
      : m_data(data), m_size(size), m_address(address), m_prefix(prefix) {}
  void write_trace(std::ostream& stream) const;

 private:
  void const* m_data;
  size_t m_size;
  void const* m_address;
  char const* m_prefix;
};

/// Lines of "address: sixteen bytes in hex: sixteen characters", each after `prefix`.
TQCORE_EXPORT void render_hex_dump(std::ostream& stream, void const* data, size_t size,
                                   void const* address, char const* prefix);

}  // namespace streamers

namespace impl {

/// Reads a stream from a text without copying it; the text must outlive the buffer.
class TQCORE_EXPORT StringToStreamBuf : public std::streambuf {
 public:
  StringToStreamBuf(char const* text, size_t length);
  ~StringToStreamBuf() override;

 protected:
  pos_type seekoff(off_type offset, std::ios_base::seekdir direction,
                   std::ios_base::openmode mode) override;
};

class TQCORE_EXPORT StringToStreamBufW : public std::wstreambuf {
 public:
  StringToStreamBufW(wchar_t const* text, size_t length);
  ~StringToStreamBufW() override;

 protected:
  pos_type seekoff(off_type offset, std::ios_base::seekdir direction,
                   std::ios_base::openmode mode) override;
};

}  // namespace impl
}  // namespace tqcore
