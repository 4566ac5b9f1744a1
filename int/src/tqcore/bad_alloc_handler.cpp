// What happens when operator new finds no memory.
#include <tqcore/bad_alloc_handler.h>

#include "file_ids.h"

#include <tqcore/diagnostics.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace tqcore {
namespace {

constexpr char kFileId[] = TQCORE_FILE_ID("bad_alloc_handler");

// Set once and never cleared: the dump and trace below happen once per process.
std::atomic<int> g_outOfMemoryReported{0};

class BadAllocation : public std::bad_alloc {
 public:
  char const* what() const noexcept override { return "bad allocation"; }
};

}  // namespace

NewHandler set_bad_alloc_handler(NewHandler handler) noexcept {
  return std::set_new_handler(handler);
}

void default_bad_alloc_handler() {
  int expected = 0;
  if (!g_outOfMemoryReported.compare_exchange_strong(expected, 1)) throw BadAllocation();
  // Only the stack until the dump, which needs no heap either.
  char message[2048];
  static constexpr char kHead[] = "Memory allocation failed! Dump: ";
  std::memcpy(message, kHead, sizeof(kHead));
  size_t const used = sizeof(kHead) - 1;
  create_diagnostic_memory_dump(dump_full, nullptr, message + used, sizeof(message) - 1 - used);
  static SourceLocation const where =
      TQCORE_SOURCE_LOCATION("tqcore::default_bad_alloc_handler", kFileId);
  trace_critical_error(where, message, nullptr, 0);
  std::abort();
}

BadAllocHandler::BadAllocHandler() noexcept
    : m_previous(set_bad_alloc_handler(default_bad_alloc_handler)) {}

BadAllocHandler::BadAllocHandler(NewHandler handler) noexcept
    : m_previous(set_bad_alloc_handler(handler)) {}

BadAllocHandler::~BadAllocHandler() {
  set_bad_alloc_handler(m_previous);
  m_previous = nullptr;
}

}  // namespace tqcore
