// Text for signal handlers: a fixed buffer, digits by hand, one write(2).
#include "diagnostics_impl_fault.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tqcore {
namespace impl {

SafeText& SafeText::text(char const* value, size_t length) noexcept {
  size_t const room = sizeof(m_text) - m_size;
  size_t const taken = std::min(length, room);
  std::memcpy(m_text + m_size, value, taken);
  m_size += taken;
  return *this;
}

SafeText& SafeText::text(char const* value) noexcept {
  return value != nullptr ? text(value, std::strlen(value)) : *this;
}

SafeText& SafeText::hex_digits(uint64_t value) noexcept {
  char buffer[16];
  size_t at = sizeof(buffer);
  do {
    buffer[--at] = "0123456789abcdef"[value & 15];
    value >>= 4;
  } while (value != 0);
  return text(buffer + at, sizeof(buffer) - at);
}

SafeText& SafeText::hex(uint64_t value, unsigned int digits) noexcept {
  char buffer[18];
  size_t at = sizeof(buffer);
  do {
    buffer[--at] = "0123456789abcdef"[value & 15];
    value >>= 4;
  } while ((value != 0 || sizeof(buffer) - at < digits) && at > 2);
  buffer[--at] = 'x';
  buffer[--at] = '0';
  return text(buffer + at, sizeof(buffer) - at);
}

SafeText& SafeText::decimal(uint64_t value) noexcept {
  char buffer[20];
  size_t at = sizeof(buffer);
  do {
    buffer[--at] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  return text(buffer + at, sizeof(buffer) - at);
}

void SafeText::write_to(int fd) noexcept {
  size_t done = 0;
  while (done < m_size) {
    ssize_t const n = write(fd, m_text + done, m_size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

}  // namespace impl
}  // namespace tqcore
