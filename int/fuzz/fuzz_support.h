// What the fuzz targets share: a reader over the fuzzer's bytes, and the check that stops the
// run, naming the broken rule and the input, when an oracle disagrees.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tqcore_fuzz {

// Hands out the input front to back; once it is used up, every read gives zeros.
class Input {
 public:
  Input(uint8_t const* data, size_t size) noexcept : m_data(data), m_size(size) {}

  size_t left() const noexcept { return m_size; }
  uint8_t byte() noexcept {
    if (m_size == 0) return 0;
    --m_size;
    return *m_data++;
  }
  template <class T>
  T integral() noexcept {
    T value = 0;
    for (size_t k = 0; k < sizeof(T); ++k) value = static_cast<T>((value << 8) | byte());
    return value;
  }
  // The next `count` bytes (fewer at the end) as text.
  std::string text(size_t count) {
    count = count < m_size ? count : m_size;
    std::string taken(reinterpret_cast<char const*>(m_data), count);
    m_data += count;
    m_size -= count;
    return taken;
  }
  // Text up to the next byte `stop` (not included), or the rest.
  std::string text_until(char stop) {
    size_t n = 0;
    while (n < m_size && m_data[n] != static_cast<uint8_t>(stop)) ++n;
    std::string taken = text(n);
    byte();
    return taken;
  }
  std::string rest() { return text(m_size); }

 private:
  uint8_t const* m_data;
  size_t m_size;
};

// Printable, so that a failing input shows in the log as it is.
inline std::string escaped(std::string const& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7F && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char code[8];
      std::snprintf(code, sizeof(code), "\\x%02X", c);
      out += code;
    }
  }
  return out;
}

[[noreturn]] inline void fail(char const* rule, char const* file, int line,
                              std::string const& detail) {
  std::fprintf(stderr, "%s:%d: broken: %s\n  with \"%s\"\n", file, line, rule,
               escaped(detail).c_str());
  std::abort();
}

}  // namespace tqcore_fuzz

// Stops the run when `rule` does not hold; `detail` is the text the rule was checked on.
#define FUZZ_CHECK(rule, detail)                                           \
  do {                                                                     \
    if (!(rule)) ::tqcore_fuzz::fail(#rule, __FILE__, __LINE__, (detail)); \
  } while (false)
