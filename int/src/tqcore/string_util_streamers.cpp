#include <tqcore/error_params.h>
#include <tqcore/streamers.h>
#include <tqcore/string_to.h>
#include <tqcore/transforms.h>
#include <tqcore/ucsutil.h>

#include <cstring>
#include <ostream>
#include <string>

namespace tqcore {
namespace streamers {

// At least `digits` digits, however many that is; a value needs 16 at the most.
void Hex::write_trace_impl(std::ostream& stream, unsigned long long value,
                           unsigned long long digits) {
  char buffer[16];
  char* const end = buffer + sizeof(buffer);
  char* p = end;
  do {
    *--p = impl::TransformHelperHex::sm_fromBinaryTable[value & 15];
    value >>= 4;
  } while (value != 0);
  auto const significant = static_cast<unsigned long long>(end - p);
  std::string text("0x");
  if (digits > significant) text.append(digits - significant, '0');
  text.append(p, end);
  stream << text;  // one string, so that a field width applies to the whole
}

void Pointer::write_trace_impl(std::ostream& stream, void const* value) {
  Hex::write_trace_impl(stream, reinterpret_cast<uintptr_t>(value), 16);
}

void String::write_string(std::ostream& stream, char const* text, size_t length, size_t maximum,
                          char quote) {
  if (text == nullptr) length = 0;
  if (quote != 0) stream << quote;
  size_t n = maximum >= length ? length : utf8_limit_length(text, length, maximum);
  bool const cut = n != length;
  if (stream.width() == 0) {
    stream.write(text, static_cast<std::streamsize>(n));
    if (cut) stream.write("...", 3);
  } else {
    std::string shown(text, n);
    if (cut) shown += "...";
    stream << shown;
  }
  if (quote != 0) stream << quote;
}

void WString::write_string(std::ostream& stream, wchar_t const* text, size_t length, size_t maximum,
                           char quote) {
  std::string const utf8 =
      to_string(text != nullptr ? text : L"", text != nullptr ? length : 0, '?', nullptr);
  String::write_string(stream, utf8.data(), utf8.size(), maximum, quote);
}

void HexDump::write_trace(std::ostream& stream) const {
  render_hex_dump(stream, m_data, m_size, m_address, m_prefix);
}

void render_hex_dump(std::ostream& stream, void const* data, size_t size, void const* address,
                     char const* prefix) {
  if (data == nullptr || size == 0) return;
  auto const* bytes = static_cast<unsigned char const*>(data);
  uintptr_t line_address = reinterpret_cast<uintptr_t>(address);
  char const* const digits = impl::TransformHelperHex::sm_fromBinaryTable;
  for (size_t at = 0; at < size; at += 16, line_address += 16) {
    char line[16 + 2 + 48 + 2 + 16 + 1];
    char* p = line;
    for (int shift = 60; shift >= 0; shift -= 4) *p++ = digits[(line_address >> shift) & 15];
    *p++ = ':';
    *p++ = ' ';
    for (size_t k = 0; k < 16; ++k) {
      bool const present = at + k < size;
      *p++ = present ? digits[bytes[at + k] >> 4] : ' ';
      *p++ = present ? digits[bytes[at + k] & 15] : ' ';
      *p++ = ' ';
    }
    *p++ = ':';
    *p++ = ' ';
    for (size_t k = 0; k < 16; ++k) {
      unsigned char const c = at + k < size ? bytes[at + k] : ' ';
      *p++ = c >= 32 && c <= 127 ? static_cast<char>(c) : '.';  // 127 counts as printable
    }
    *p++ = '\n';
    stream << (prefix != nullptr ? prefix : "");
    stream.write(line, p - line);
  }
}

}  // namespace streamers

// ---- Stream buffers over a text --------------------------------------------------------------

namespace impl {
namespace {

// The position of a seek in a get area [begin, end) with the current place `current`, or -1.
template <class Char>
std::streamoff seek_target(std::streamoff offset, std::ios_base::seekdir direction,
                           std::ios_base::openmode mode, Char* begin, Char* current, Char* end) {
  if ((mode & std::ios_base::in) == 0) return -1;
  std::streamoff const length = end - begin;
  std::streamoff position = offset;
  if (direction == std::ios_base::cur) position += current - begin;
  if (direction == std::ios_base::end) position += length;
  return position < 0 || position > length ? -1 : position;
}

}  // namespace

StringToStreamBuf::StringToStreamBuf(char const* text, size_t length) {
  char* begin = const_cast<char*>(text);  // the get area is only read
  setg(begin, begin, begin + length);
}

StringToStreamBuf::~StringToStreamBuf() = default;

StringToStreamBuf::pos_type StringToStreamBuf::seekoff(off_type offset,
                                                       std::ios_base::seekdir direction,
                                                       std::ios_base::openmode mode) {
  std::streamoff position = seek_target(offset, direction, mode, eback(), gptr(), egptr());
  if (position >= 0) setg(eback(), eback() + position, egptr());
  return pos_type(position);
}

StringToStreamBufW::StringToStreamBufW(wchar_t const* text, size_t length) {
  wchar_t* begin = const_cast<wchar_t*>(text);
  setg(begin, begin, begin + length);
}

StringToStreamBufW::~StringToStreamBufW() = default;

StringToStreamBufW::pos_type StringToStreamBufW::seekoff(off_type offset,
                                                         std::ios_base::seekdir direction,
                                                         std::ios_base::openmode mode) {
  std::streamoff position = seek_target(offset, direction, mode, eback(), gptr(), egptr());
  if (position >= 0) setg(eback(), eback() + position, egptr());
  return pos_type(position);
}

}  // namespace impl

// ---- ErrorParams::write_trace ----------------------------------------------------------------

void ErrorParams::write_trace(std::ostream& stream, char const* separator) const {
  bool first = true;
  for (value_type const& entry : m_entries) {
    if (!first && separator != nullptr) stream << separator;
    first = false;
    streamers::String::write_string(stream, entry.first.data(), entry.first.size(), 128, '\'');
    stream << " => ";
    streamers::String::write_string(stream, entry.second.data(), entry.second.size(), 256, '"');
  }
}

}  // namespace tqcore
