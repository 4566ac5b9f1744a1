// Hex dumps of memory and of the stack between frames, elided so that a report stays short.
#include <cstdio>
#include <ostream>

#include "diagnostics_impl_internal.h"

namespace tqcore {
namespace {

constexpr uint64_t kRowBytes = 32;
constexpr uint64_t kStackTail = 256;
constexpr uint64_t kFirstStretchHead = 512;
constexpr uint64_t kLaterStretchHead = 256;
constexpr uint64_t kFramelessHead = 4096;

// The label shows the low 32 bits of the address in 16 digits, as the reports always have.
void write_row_label(std::ostream& stream, uint64_t address, bool first) {
  char text[24];
  std::snprintf(text, sizeof(text), "%s%016llx:", first ? "" : "\n",
                static_cast<unsigned long long>(address & 0xffffffffu));
  stream << text;
}

void write_word(std::ostream& stream, uint64_t address, bool test_each) {
  uint64_t word = 0;
  bool readable = true;
  if (test_each) {
    readable = impl::read_memory(address, &word, sizeof(word));
  } else {
    word = impl::load_word(address);  // the region was tested whole
  }
  char text[24];
  if (readable) {
    std::snprintf(text, sizeof(text), " %016llx", static_cast<unsigned long long>(word));
  } else {
    std::snprintf(text, sizeof(text), " ????????????????");
  }
  stream << text;
}

uint64_t clamp(uint64_t value, uint64_t low, uint64_t high) {
  return value < low ? low : value > high ? high : value;
}

}  // namespace

void dump_memory_region(std::ostream& stream, uint64_t begin, uint64_t end) {
  if (end < begin || begin % 8 != 0) {
    stream << "<bad address>";
    return;
  }
  bool const test_each = !impl::is_readable(begin, end - begin);
  uint64_t const start = begin - begin % kRowBytes;
  if (start >= end) {
    stream << '\n';
    return;
  }
  for (uint64_t address = start; address < end; address += 8) {
    if (address % kRowBytes == 0) write_row_label(stream, address, address == start);
    if (address < begin) {
      stream << "                 ";
    } else {
      write_word(stream, address, test_each);
    }
  }
  stream << '\n';
}

void dump_memory_range(std::ostream& stream, uint64_t begin, uint64_t end, uint64_t head,
                       uint64_t tail) {
  if (begin >= end) return;
  if (end - begin <= head + tail + kRowBytes) {
    dump_memory_region(stream, begin, end);
    return;
  }
  uint64_t const cut = end - end % kRowBytes - tail;
  uint64_t const offset = begin % kRowBytes;
  uint64_t const lead_end = begin + (head > offset ? head - offset : 0) + kRowBytes;
  dump_memory_region(stream, begin, lead_end);
  stream << "  ..." << (cut > lead_end ? cut - lead_end : 0) << " bytes omitted...\n";
  dump_memory_region(stream, cut, end);
}

void dump_stack(std::ostream& stream, uint64_t start_sp, StackFrameRecord const* begin,
                StackFrameRecord const* end, unsigned int frame_limit) {
  impl::StackBounds const stack = impl::thread_stack_bounds();
  uint64_t cursor = clamp(start_sp, stack.low, stack.high);
  if (begin == end) {
    dump_memory_range(stream, cursor, stack.high, kFramelessHead, kStackTail);
    return;
  }
  uint64_t head = kFirstStretchHead;
  unsigned int number = 1;
  for (StackFrameRecord const* frame = begin; frame != end; ++frame, ++number) {
    dump_memory_range(stream, cursor, frame->unwound_sp, head, kStackTail);
    head = kLaterStretchHead;
    cursor = frame->unwound_sp;
    char text[64];
    std::snprintf(text, sizeof(text), "> Frame %u -- ip=%016llx", number,
                  static_cast<unsigned long long>(frame->ip));
    stream << text;
    if (!impl::is_code_address(frame->ip)) stream << "<bad code ptr>";
    if (frame + 1 != end && number >= frame_limit) {
      stream << " (subsequent frames omitted)\n";
      break;
    }
    stream << '\n';
  }
  dump_memory_range(stream, cursor, stack.high, kLaterStretchHead, kStackTail);
}

void dump_stack(std::ostream& stream, ucontext_t const* context, StackFrameRecord const* begin,
                StackFrameRecord const* end, unsigned int frame_limit) {
  uint64_t const sp = context != nullptr
                          ? static_cast<uint64_t>(context->uc_mcontext.gregs[REG_RSP])
                          : reinterpret_cast<uint64_t>(__builtin_frame_address(0));
  dump_stack(stream, sp, begin, end, frame_limit);
}

}  // namespace tqcore
