// Memory probes for a failing process: whether an address can be read or executed, answered by
// the kernel instead of by touching the address, and the calling thread's stack bounds.
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "diagnostics_impl_fault.h"
#include "diagnostics_impl_internal.h"

namespace tqcore {
namespace impl {
namespace {

// Where process_vm_readv is refused (some sandboxes filter it), a pipe tells the same: write()
// fails with EFAULT on memory it cannot read. A pipe of its own for each call keeps threads
// apart; this path is rare.
bool read_through_pipe(uint64_t address, void* out, size_t size) noexcept {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  auto* target = static_cast<char*>(out);
  bool ok = true;
  for (size_t done = 0; ok && done < size;) {
    size_t const piece = std::min<size_t>(size - done, 4096);
    ok = write(fds[1], as_pointer(address + done), piece) == static_cast<ssize_t>(piece) &&
         read(fds[0], target + done, piece) == static_cast<ssize_t>(piece);
    done += piece;
  }
  close(fds[0]);
  close(fds[1]);
  return ok;
}

// One line of /proc/self/maps at a time through a stack buffer: "lo-hi perms ...".
bool maps_say_executable(uint64_t address) noexcept {
  int const fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[4096];
  size_t filled = 0;
  bool found = false;
  for (bool more = true; more && !found;) {
    ssize_t const n = read(fd, buffer + filled, sizeof(buffer) - 1 - filled);
    more = n > 0;
    if (n > 0) filled += static_cast<size_t>(n);
    buffer[filled] = '\0';
    char* line = buffer;
    for (char* eol; !found && (eol = std::strchr(line, '\n')) != nullptr; line = eol + 1) {
      char* rest = nullptr;
      uint64_t const low = std::strtoull(line, &rest, 16);
      uint64_t const high = std::strtoull(rest + 1, &rest, 16);
      found = address >= low && address < high && rest[1] != '\0' && rest[3] == 'x';
    }
    filled = static_cast<size_t>(buffer + filled - line);
    std::memmove(buffer, line, filled);
    if (filled == sizeof(buffer) - 1) filled = 0;  // a line this long is no mapping line
  }
  close(fd);
  return found;
}

// The object's own program headers, read from its mapped ELF header: is the address in an
// executable segment?
bool object_segment_is_executable(dl_find_object const& object, uint64_t address) noexcept {
  auto const base = reinterpret_cast<uint64_t>(object.dlfo_map_start);
  Elf64_Ehdr header;
  if (!read_memory(base, &header, sizeof(header)) ||
      std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
    return maps_say_executable(address);
  }
  uint64_t const load_bias = object.dlfo_link_map->l_addr;
  for (unsigned int i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    if (!read_memory(base + header.e_phoff + i * uint64_t{header.e_phentsize}, &segment,
                     sizeof(segment))) {
      return maps_say_executable(address);
    }
    uint64_t const start = load_bias + segment.p_vaddr;
    if (segment.p_type == PT_LOAD && address >= start && address < start + segment.p_memsz) {
      return (segment.p_flags & PF_X) != 0;
    }
  }
  return false;
}

struct ThreadStack {
  bool known;
  StackBounds bounds;
};
// Initial-exec: a signal handler's first touch of a dynamic TLS block could allocate.
__attribute__((tls_model("initial-exec"))) thread_local ThreadStack g_threadStack{};

// Pages found readable while a rendering is under way: a frame's parameters point into the
// same few pages again and again, and each question to the kernel is a system call.
struct ReadablePages {
  int depth;
  unsigned int next;
  uint64_t pages[16];
};
__attribute__((tls_model("initial-exec"))) thread_local ReadablePages g_readablePages{};
constexpr uint64_t kPageBits = 12;

bool known_readable(uint64_t address, size_t size) {
  if (g_readablePages.depth == 0 || size == 0) return false;
  uint64_t const first = address >> kPageBits;
  uint64_t const last = (address + size - 1) >> kPageBits;
  for (uint64_t page = first; page <= last; ++page) {
    bool found = false;
    for (uint64_t known : g_readablePages.pages) found = found || known == page + 1;
    if (!found) return false;
  }
  return true;
}

void remember_readable(uint64_t address, size_t size) {
  if (g_readablePages.depth == 0 || size == 0) return;
  for (uint64_t page = address >> kPageBits; page <= (address + size - 1) >> kPageBits; ++page) {
    g_readablePages.pages[g_readablePages.next++ % 16] = page + 1;  // 0 marks an empty slot
  }
}

}  // namespace

// The calling thread's stack above its current frame is mapped and live: it is read without
// asking the kernel. The copy may cross a sanitizer's red zones on purpose.
__attribute__((no_sanitize("address", "hwaddress", "thread"))) bool read_live_stack(
    uint64_t address, void* out, size_t size) noexcept {
  StackBounds const stack = thread_stack_bounds();
  auto const here = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
  // Off the thread's own stack (a report built on a stack of its own) nothing counts as live.
  if (here < stack.low || here > stack.high) return false;
  if (address < here || address > stack.high || stack.high - address < size) return false;
  auto const* from = static_cast<unsigned char const volatile*>(as_pointer(address));
  auto* to = static_cast<unsigned char*>(out);
  for (size_t i = 0; i < size; ++i) to[i] = from[i];
  return true;
}

bool read_memory(uint64_t address, void* out, size_t size) noexcept {
  if (size == 0) return true;
  if (address + size < address) return false;
  if (read_live_stack(address, out, size)) return true;
  iovec local{out, size};
  iovec remote{as_pointer(address), size};
  ssize_t const n = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
  if (n == static_cast<ssize_t>(size)) return true;
  if (n < 0 && (errno == ENOSYS || errno == EPERM)) return read_through_pipe(address, out, size);
  return false;
}

bool is_readable(uint64_t address, size_t size) noexcept {
  StackBounds const stack = thread_stack_bounds();
  auto const here = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
  if (here >= stack.low && address >= here && address <= stack.high &&
      stack.high - address >= size) {
    return true;
  }
  if (known_readable(address, size)) return true;
  uint64_t const start = address;
  size_t const length = size;
  char probe[256];
  while (size > 0) {
    size_t const piece = std::min(size, sizeof(probe));
    if (!read_memory(address, probe, piece)) return false;
    address += piece;
    size -= piece;
  }
  remember_readable(start, length);
  return true;
}

ReadablePageMemo::ReadablePageMemo() noexcept { g_readablePages.depth += 1; }
ReadablePageMemo::~ReadablePageMemo() {
  if (--g_readablePages.depth == 0) g_readablePages = ReadablePages{};
}

bool object_base(uint64_t address, uint64_t& base) noexcept {
  dl_find_object object;
  if (_dl_find_object(as_pointer(address), &object) != 0) return false;
  base = reinterpret_cast<uint64_t>(object.dlfo_map_start);
  return true;
}

bool is_code_address(uint64_t address) noexcept {
  if (address == 0) return false;
  // _dl_find_object takes no lock that a signal could interrupt; mappings of no object (code
  // made at run time) fall back to the kernel's list.
  dl_find_object object;
  if (_dl_find_object(as_pointer(address), &object) == 0) {
    return object_segment_is_executable(object, address);
  }
  return maps_say_executable(address);
}

StackBounds thread_stack_bounds() noexcept {
  if (!g_threadStack.known) {
    pthread_attr_t attributes;
    void* low = nullptr;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
      pthread_attr_getstack(&attributes, &low, &size);
      pthread_attr_destroy(&attributes);
    }
    auto const base = reinterpret_cast<uint64_t>(low);
    g_threadStack.bounds = StackBounds{base, base + size};
    g_threadStack.known = true;
    if (size != 0) register_thread_stack(base, base + size);
  }
  return g_threadStack.bounds;
}

}  // namespace impl
}  // namespace tqcore
