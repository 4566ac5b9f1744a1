// Memory dumps as ELF core files, written by the process itself: notes for the dumping thread
// (status, registers, signal), the auxiliary vector and the mapped files, then one loadable
// segment a mapping. Nothing here uses the heap: a dump is asked for when memory has run out
// or inside a signal handler, so the writer reads /proc with raw reads into fixed buffers and
// writes with write(2).
#include "diagnostics_impl_fault.h"

#include "diagnostics_impl_internal.h"

#include <asm/prctl.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/procfs.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace tqcore {
namespace impl {
namespace {

constexpr uint64_t kPage = 4096;
constexpr size_t kMappingCapacity = 8192;
constexpr size_t kNameCapacity = size_t{1} << 20;
constexpr size_t kStackCapacity = 1024;
constexpr size_t kGeneratedPathCapacity = 292;
constexpr char kCoreName[8] = "CORE";  // padded to the note's 4-byte alignment

struct Mapping {
  uint64_t start;
  uint64_t end;
  uint64_t file_offset;
  uint32_t name_at;
  uint32_t name_length;
  uint32_t flags;      // PF_R, PF_W, PF_X
  bool file;           // backed by a file, named in NT_FILE
  bool dont_dump;      // excluded from core dumps, or nothing to read (device, [vvar])
  bool modified;       // has private pages written since mapping (relocated data)
  uint64_t dump_size;  // bytes of the mapping written, from its start
};

// The writer's tables, in static storage and used under the dump lock. Untouched pages of
// them cost nothing.
Mapping g_mappings[kMappingCapacity];
char g_names[kNameCapacity];

struct MappingTable {
  size_t count = 0;
  size_t names_used = 0;
  size_t file_count = 0;
};

// The stacks recorded by threads at their first use of the diagnostics.
struct RecordedStack {
  std::atomic<uint64_t> low{0};
  std::atomic<uint64_t> high{0};
};
RecordedStack g_stacks[kStackCapacity];

// Lines of a /proc file through a fixed buffer; a line longer than the buffer is skipped.
class LineReader {
 public:
  explicit LineReader(int fd) noexcept : m_fd(fd) {}
  char* next() noexcept {
    for (;;) {
      auto* newline = static_cast<char*>(std::memchr(m_text + m_begin, '\n', m_end - m_begin));
      if (newline != nullptr) {
        *newline = '\0';
        char* line = m_text + m_begin;
        m_begin = static_cast<size_t>(newline + 1 - m_text);
        if (m_skipping) {
          m_skipping = false;
          continue;
        }
        return line;
      }
      if (!fill()) return nullptr;
    }
  }

 private:
  bool fill() noexcept {
    std::memmove(m_text, m_text + m_begin, m_end - m_begin);
    m_end -= m_begin;
    m_begin = 0;
    if (m_end == sizeof(m_text)) {
      m_end = 0;
      m_skipping = true;
    }
    ssize_t n = 0;
    do {
      n = read(m_fd, m_text + m_end, sizeof(m_text) - m_end);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) return false;
    m_end += static_cast<size_t>(n);
    return true;
  }

  int m_fd;
  char m_text[8192];
  size_t m_begin = 0;
  size_t m_end = 0;
  bool m_skipping = false;
};

uint64_t parse_hex(char const*& text) noexcept {
  uint64_t value = 0;
  for (;; ++text) {
    char const c = *text;
    unsigned int digit = 0;
    if (c >= '0' && c <= '9') {
      digit = static_cast<unsigned int>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      digit = static_cast<unsigned int>(c - 'a' + 10);
    } else {
      return value;
    }
    value = value << 4 | digit;
  }
}

char const* skip_field(char const* text) noexcept {
  while (*text != '\0' && *text != ' ') ++text;
  while (*text == ' ') ++text;
  return text;
}

bool starts_with(char const* text, char const* prefix) noexcept {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// Device memory, and the kernel's pages that cannot or need not be read back.
bool is_unreadable_kind(char const* path) noexcept {
  if (std::strcmp(path, "[vvar]") == 0 || std::strcmp(path, "[vsyscall]") == 0) return true;
  return starts_with(path, "/dev/") && !starts_with(path, "/dev/shm/") &&
         !starts_with(path, "/dev/zero");
}

// "start-end perms offset dev inode path" of /proc/self/smaps.
void add_mapping(MappingTable& table, char const* line) noexcept {
  if (table.count == kMappingCapacity) return;
  Mapping& mapping = g_mappings[table.count];
  mapping = Mapping{};
  mapping.start = parse_hex(line);
  ++line;
  mapping.end = parse_hex(line);
  ++line;
  mapping.flags =
      (line[0] == 'r' ? PF_R : 0) | (line[1] == 'w' ? PF_W : 0) | (line[2] == 'x' ? PF_X : 0);
  line = skip_field(line);
  mapping.file_offset = parse_hex(line);
  line = skip_field(skip_field(skip_field(line)));  // offset's rest, device, inode
  size_t const length = std::strlen(line);
  mapping.file = line[0] == '/';
  mapping.dont_dump = (mapping.flags & PF_R) == 0 || is_unreadable_kind(line);
  if (length + 1 <= kNameCapacity - table.names_used) {
    mapping.name_at = static_cast<uint32_t>(table.names_used);
    mapping.name_length = static_cast<uint32_t>(length);
    std::memcpy(g_names + table.names_used, line, length + 1);
    table.names_used += length + 1;
  } else {
    mapping.file = false;  // no room to name it: it is dumped as if anonymous
  }
  if (mapping.file) table.file_count += 1;
  table.count += 1;
}

bool is_mapping_header(char const* line) noexcept {
  char const c = line[0];
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

bool read_mappings(MappingTable& table) noexcept {
  int const fd = open("/proc/self/smaps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  LineReader reader(fd);
  while (char const* line = reader.next()) {
    if (is_mapping_header(line)) {
      add_mapping(table, line);
    } else if (table.count > 0 && starts_with(line, "VmFlags:") && std::strstr(line, " dd")) {
      g_mappings[table.count - 1].dont_dump = true;
    } else if (table.count > 0 && starts_with(line, "Anonymous:")) {
      char const* size = skip_field(line);
      g_mappings[table.count - 1].modified = *size != '0';
    }
  }
  close(fd);
  return table.count > 0;
}

bool overlaps_recorded_stack(Mapping const& mapping) noexcept {
  for (RecordedStack const& stack : g_stacks) {
    uint64_t const low = stack.low.load(std::memory_order_acquire);
    uint64_t const high = stack.high.load(std::memory_order_acquire);
    if (high != 0 && low < mapping.end && high > mapping.start) return true;
  }
  return false;
}

bool is_elf_image(Mapping const& mapping) noexcept {
  char magic[SELFMAG];
  return mapping.file_offset == 0 && read_memory(mapping.start, magic, SELFMAG) &&
         std::memcmp(magic, ELFMAG, SELFMAG) == 0;
}

// How much of each mapping the dump holds.
void choose_contents(MappingTable& table, EDiagnosticMemoryDumpType type, uint64_t sp) noexcept {
  for (size_t i = 0; i < table.count; ++i) {
    Mapping& mapping = g_mappings[i];
    if (mapping.dont_dump) continue;
    char const* name = g_names + mapping.name_at;
    bool const anonymous = !mapping.file && !starts_with(name, "[vdso]");
    bool const stack =
        (sp >= mapping.start && sp < mapping.end) || overlaps_recorded_stack(mapping);
    bool whole = stack || starts_with(name, "[vdso]");
    // Relocated read-only data counts as written: it holds what a debugger needs to find the
    // loaded libraries.
    if (type != dump_stacks) {
      whole = whole || anonymous || mapping.modified || (mapping.flags & PF_W) != 0;
    }
    if (whole) {
      mapping.dump_size = mapping.end - mapping.start;
    } else if (mapping.file && is_elf_image(mapping)) {
      mapping.dump_size = kPage;
    }
  }
}

// Buffered raw writes; the first failure sticks.
class CoreWriter {
 public:
  explicit CoreWriter(int fd) noexcept : m_fd(fd) {}
  void put(void const* data, size_t size) noexcept {
    auto const* bytes = static_cast<char const*>(data);
    while (size > 0 && m_ok) {
      size_t const piece = std::min(size, sizeof(m_buffer) - m_used);
      std::memcpy(m_buffer + m_used, bytes, piece);
      m_used += piece;
      bytes += piece;
      size -= piece;
      if (m_used == sizeof(m_buffer)) flush();
    }
  }
  void pad_to(uint64_t offset) noexcept {
    static char const kZeros[64] = {};
    while (m_offset + m_used < offset && m_ok) {
      put(kZeros,
          static_cast<size_t>(std::min<uint64_t>(sizeof(kZeros), offset - m_offset - m_used)));
    }
  }
  void flush() noexcept {
    size_t done = 0;
    while (done < m_used && m_ok) {
      ssize_t const n = write(m_fd, m_buffer + done, m_used - done);
      if (n < 0 && errno == EINTR) continue;
      m_ok = n > 0;
      if (m_ok) done += static_cast<size_t>(n);
    }
    m_offset += m_used;
    m_used = 0;
  }
  // A stretch of zeros as a hole in the file.
  void skip(uint64_t size) noexcept {
    flush();
    m_ok = m_ok && lseek(m_fd, static_cast<off_t>(size), SEEK_CUR) >= 0;
    m_offset += size;
  }
  uint64_t offset() const noexcept { return m_offset + m_used; }
  bool ok() const noexcept { return m_ok; }
  int fd() const noexcept { return m_fd; }

 private:
  int m_fd;
  char m_buffer[8192];
  size_t m_used = 0;
  uint64_t m_offset = 0;
  bool m_ok = true;
};

// A note is its header, the owner's name, then `size` bytes of description padded to 4.
void put_note_head(CoreWriter& out, uint32_t type, size_t size) noexcept {
  Elf64_Nhdr header{};
  header.n_namesz = 5;
  header.n_descsz = static_cast<Elf64_Word>(size);
  header.n_type = type;
  out.put(&header, sizeof(header));
  out.put(kCoreName, sizeof(kCoreName));
}

void put_note_padding(CoreWriter& out, size_t size) noexcept {
  static char const kPad[4] = {};
  out.put(kPad, (4 - size % 4) % 4);
}

void put_note(CoreWriter& out, uint32_t type, void const* data, size_t size) noexcept {
  put_note_head(out, type, size);
  out.put(data, size);
  put_note_padding(out, size);
}

size_t note_size(size_t size) noexcept {
  return sizeof(Elf64_Nhdr) + sizeof(kCoreName) + (size + 3) / 4 * 4;
}

size_t read_whole(char const* path, char* buffer, size_t capacity) noexcept {
  int const fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  size_t used = 0;
  while (used < capacity) {
    ssize_t const n = read(fd, buffer + used, capacity - used);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    used += static_cast<size_t>(n);
  }
  close(fd);
  return used;
}

user_regs_struct registers_of(ucontext_t const& context) noexcept {
  greg_t const* g = context.uc_mcontext.gregs;
  auto const reg = [g](int index) { return static_cast<unsigned long long>(g[index]); };
  user_regs_struct regs{};
  regs.r15 = reg(REG_R15);
  regs.r14 = reg(REG_R14);
  regs.r13 = reg(REG_R13);
  regs.r12 = reg(REG_R12);
  regs.rbp = reg(REG_RBP);
  regs.rbx = reg(REG_RBX);
  regs.r11 = reg(REG_R11);
  regs.r10 = reg(REG_R10);
  regs.r9 = reg(REG_R9);
  regs.r8 = reg(REG_R8);
  regs.rax = reg(REG_RAX);
  regs.rcx = reg(REG_RCX);
  regs.rdx = reg(REG_RDX);
  regs.rsi = reg(REG_RSI);
  regs.rdi = reg(REG_RDI);
  regs.orig_rax = ~0ull;
  regs.rip = reg(REG_RIP);
  regs.eflags = reg(REG_EFL);
  regs.rsp = reg(REG_RSP);
  unsigned long long const segments = reg(REG_CSGSFS);  // cs, gs, fs, ss: 16 bits each
  regs.cs = segments & 0xffff;
  regs.gs = segments >> 16 & 0xffff;
  regs.fs = segments >> 32 & 0xffff;
  regs.ss = (segments >> 48 & 0xffff) != 0 ? segments >> 48 & 0xffff : 0x2b;
  if (regs.cs == 0) regs.cs = 0x33;
  unsigned long fs_base = 0;
  syscall(SYS_arch_prctl, ARCH_GET_FS, &fs_base);
  regs.fs_base = fs_base;
  return regs;
}

siginfo_t signal_info_of(FaultRecord const& record) noexcept {
  siginfo_t info{};
  info.si_signo = record.signal;
  info.si_code = record.signal_code;
  bool const memory = record.signal == SIGSEGV || record.signal == SIGBUS;
  info.si_addr =
      as_pointer(memory && record.parameter_count >= 2 ? record.parameters[1] : record.address);
  return info;
}

elf_prstatus status_of(FaultRecord const& record, ucontext_t const& context) noexcept {
  elf_prstatus status{};
  status.pr_info.si_signo = record.signal;
  status.pr_info.si_code = record.signal_code;
  status.pr_cursig = static_cast<short>(record.signal);
  status.pr_pid = static_cast<pid_t>(current_thread_id());
  status.pr_ppid = getppid();
  status.pr_pgrp = getpgrp();
  status.pr_sid = getsid(0);
  user_regs_struct const regs = registers_of(context);
  static_assert(sizeof(regs) == sizeof(status.pr_reg), "general registers in the note's form");
  std::memcpy(&status.pr_reg, &regs, sizeof(regs));
  status.pr_fpvalid = context.uc_mcontext.fpregs != nullptr ? 1 : 0;
  return status;
}

elf_prpsinfo process_info() noexcept {
  elf_prpsinfo info{};
  info.pr_sname = 'R';
  info.pr_uid = getuid();
  info.pr_gid = getgid();
  info.pr_pid = getpid();
  info.pr_ppid = getppid();
  info.pr_pgrp = getpgrp();
  info.pr_sid = getsid(0);
  size_t const name = read_whole("/proc/self/comm", info.pr_fname, sizeof(info.pr_fname) - 1);
  if (name > 0 && info.pr_fname[name - 1] == '\n') info.pr_fname[name - 1] = '\0';
  size_t const args = read_whole("/proc/self/cmdline", info.pr_psargs, sizeof(info.pr_psargs) - 1);
  for (size_t i = 0; i + 1 < args; ++i) {
    if (info.pr_psargs[i] == '\0') info.pr_psargs[i] = ' ';
  }
  return info;
}

size_t file_note_size(MappingTable const& table) noexcept {
  size_t size = 2 * sizeof(uint64_t) + 3 * sizeof(uint64_t) * table.file_count;
  for (size_t i = 0; i < table.count; ++i) {
    if (g_mappings[i].file) size += g_mappings[i].name_length + 1;
  }
  return size;
}

// NT_FILE: count, page size, (start, end, offset in pages) for each file, then the names.
void put_file_note(CoreWriter& out, MappingTable const& table) noexcept {
  size_t const size = file_note_size(table);
  put_note_head(out, NT_FILE, size);
  uint64_t const head[2] = {table.file_count, kPage};
  out.put(head, sizeof(head));
  for (size_t i = 0; i < table.count; ++i) {
    Mapping const& m = g_mappings[i];
    if (!m.file) continue;
    uint64_t const entry[3] = {m.start, m.end, m.file_offset / kPage};
    out.put(entry, sizeof(entry));
  }
  for (size_t i = 0; i < table.count; ++i) {
    if (g_mappings[i].file) out.put(g_names + g_mappings[i].name_at, g_mappings[i].name_length + 1);
  }
  put_note_padding(out, size);
}

struct Notes {
  elf_prpsinfo info;
  elf_prstatus status;
  user_fpregs_struct fpregs;
  siginfo_t signal;
  char auxv[4096];
  size_t auxv_size;
};

size_t notes_size(Notes const& notes, MappingTable const& table) noexcept {
  return note_size(sizeof(notes.info)) + note_size(sizeof(notes.status)) +
         note_size(sizeof(notes.fpregs)) + note_size(sizeof(notes.signal)) +
         (notes.auxv_size > 0 ? note_size(notes.auxv_size) : 0) + note_size(file_note_size(table));
}

void put_notes(CoreWriter& out, Notes const& notes, MappingTable const& table) noexcept {
  put_note(out, NT_PRPSINFO, &notes.info, sizeof(notes.info));
  put_note(out, NT_PRSTATUS, &notes.status, sizeof(notes.status));
  put_note(out, NT_FPREGSET, &notes.fpregs, sizeof(notes.fpregs));
  put_note(out, NT_SIGINFO, &notes.signal, sizeof(notes.signal));
  if (notes.auxv_size > 0) put_note(out, NT_AUXV, notes.auxv, notes.auxv_size);
  put_file_note(out, table);
}

size_t segment_count(MappingTable const& table) noexcept {
  size_t count = 0;
  for (size_t i = 0; i < table.count; ++i) count += g_mappings[i].dont_dump ? 0 : 1;
  return count;
}

void put_headers(CoreWriter& out, MappingTable const& table, uint64_t notes_offset,
                 uint64_t notes_bytes, uint64_t data_offset) noexcept {
  Elf64_Ehdr header{};
  std::memcpy(header.e_ident, ELFMAG, SELFMAG);
  header.e_ident[EI_CLASS] = ELFCLASS64;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_ident[EI_VERSION] = EV_CURRENT;
  header.e_ident[EI_OSABI] = ELFOSABI_NONE;
  header.e_type = ET_CORE;
  header.e_machine = EM_X86_64;
  header.e_version = EV_CURRENT;
  header.e_phoff = sizeof(Elf64_Ehdr);
  header.e_ehsize = sizeof(Elf64_Ehdr);
  header.e_phentsize = sizeof(Elf64_Phdr);
  header.e_phnum = static_cast<Elf64_Half>(std::min<size_t>(segment_count(table) + 1, PN_XNUM));
  out.put(&header, sizeof(header));
  Elf64_Phdr note{};
  note.p_type = PT_NOTE;
  note.p_offset = notes_offset;
  note.p_filesz = notes_bytes;
  out.put(&note, sizeof(note));
  uint64_t offset = data_offset;
  for (size_t i = 0; i < table.count && i + 1 < PN_XNUM; ++i) {
    Mapping const& m = g_mappings[i];
    if (m.dont_dump) continue;
    Elf64_Phdr load{};
    load.p_type = PT_LOAD;
    load.p_flags = m.flags;
    load.p_offset = offset;
    load.p_vaddr = m.start;
    load.p_filesz = m.dump_size;
    load.p_memsz = m.end - m.start;
    load.p_align = kPage;
    out.put(&load, sizeof(load));
    offset += m.dump_size;
  }
}

// Memory that cannot be read is written as zeros, so that every later offset stays right;
// zeros become holes.
void put_memory(CoreWriter& out, uint64_t start, uint64_t size) noexcept {
  char chunk[16 * 1024];
  while (size > 0 && out.ok()) {
    size_t const piece = static_cast<size_t>(std::min<uint64_t>(size, sizeof(chunk)));
    if (!read_memory(start, chunk, piece)) {
      for (size_t at = 0; at < piece; at += kPage) {
        if (!read_memory(start + at, chunk + at, std::min<size_t>(kPage, piece - at))) {
          std::memset(chunk + at, 0, std::min<size_t>(kPage, piece - at));
        }
      }
    }
    bool const zeros = chunk[0] == 0 && std::memcmp(chunk, chunk + 1, piece - 1) == 0;
    if (zeros) {
      out.skip(piece);
    } else {
      out.put(chunk, piece);
    }
    start += piece;
    size -= piece;
  }
}

bool write_core(int fd, ExceptionPointers const& pointers,
                EDiagnosticMemoryDumpType type) noexcept {
  static MappingTable table;
  table = MappingTable{};
  if (!read_mappings(table)) return false;
  ucontext_t const& context = *pointers.context;
  choose_contents(table, type, static_cast<uint64_t>(context.uc_mcontext.gregs[REG_RSP]));
  static Notes notes;
  notes.info = process_info();
  notes.status = status_of(*pointers.record, context);
  notes.fpregs = user_fpregs_struct{};
  if (context.uc_mcontext.fpregs != nullptr) {
    std::memcpy(&notes.fpregs, context.uc_mcontext.fpregs, sizeof(notes.fpregs));
  }
  notes.signal = signal_info_of(*pointers.record);
  notes.auxv_size = read_whole("/proc/self/auxv", notes.auxv, sizeof(notes.auxv));
  size_t const segments = std::min<size_t>(segment_count(table), PN_XNUM - 1);
  uint64_t const notes_offset = sizeof(Elf64_Ehdr) + sizeof(Elf64_Phdr) * (segments + 1);
  uint64_t const notes_bytes = notes_size(notes, table);
  uint64_t const data_offset = (notes_offset + notes_bytes + kPage - 1) / kPage * kPage;
  CoreWriter out(fd);
  put_headers(out, table, notes_offset, notes_bytes, data_offset);
  put_notes(out, notes, table);
  out.pad_to(data_offset);
  for (size_t i = 0, written = 0; i < table.count && written < segments; ++i) {
    Mapping const& m = g_mappings[i];
    if (m.dont_dump) continue;
    put_memory(out, m.start, m.dump_size);
    written += 1;
  }
  out.flush();
  return out.ok() && ftruncate(fd, static_cast<off_t>(out.offset())) == 0;
}

bool write_core_file(char const* path, ExceptionPointers const& pointers,
                     EDiagnosticMemoryDumpType type) noexcept {
  if (!lock_symbol_engine_for_dump()) return false;
  int const fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool const written = fd >= 0 && write_core(fd, pointers, type);
  if (fd >= 0) close(fd);
  unlock_symbol_engine_for_dump();
  return written;
}

}  // namespace

void register_thread_stack(uint64_t low, uint64_t high) noexcept {
  for (RecordedStack& stack : g_stacks) {
    uint64_t empty = 0;
    if (stack.high.compare_exchange_strong(empty, high, std::memory_order_acq_rel)) {
      stack.low.store(low, std::memory_order_release);
      return;
    }
  }
}

}  // namespace impl

bool write_memory_dump(ExceptionPointers const* pointers, EDiagnosticMemoryDumpType type,
                       char const* path, char* path_out, size_t path_out_size) noexcept {
  char generated[impl::kGeneratedPathCapacity];
  if (path == nullptr || path[0] == '\0') {
    if (!make_dump_file_path(generated, sizeof(generated))) return false;
    path = generated;
  }
  if (path_out != nullptr && path_out_size > 0) {
    std::memset(path_out, 0, path_out_size);
    std::strncpy(path_out, path, path_out_size - 1);
  }
  if (pointers != nullptr && pointers->record != nullptr && pointers->context != nullptr) {
    return impl::write_core_file(path, *pointers, type);
  }
  ExceptionPointers current;
  if (impl::pending_fault(current)) return impl::write_core_file(path, current, type);
  // No fault in flight: the dump shows this call, from a context taken here. getcontext
  // returns once, but the compiler must assume twice: what is used after it is volatile.
  char const* volatile target = path;
  EDiagnosticMemoryDumpType volatile kind = type;
  ucontext_t context;
  getcontext(&context);
  FaultRecord record;
  record.address = static_cast<uint64_t>(context.uc_mcontext.gregs[REG_RIP]);
  current.record = &record;
  current.context = &context;
  return impl::write_core_file(target, current, kind);
}

}  // namespace tqcore
