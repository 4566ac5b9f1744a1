/// @file
/// What happens when `new` finds no memory: the default handler writes a memory dump, traces a
/// critical error naming it, and aborts.
///
/// Failures: none of its own; the default handler does not return (it dumps, traces and aborts).
///
/// @code
/// tqcore::BadAllocHandler on_out_of_memory;  // for the scope of main
/// @endcode
#pragma once

#include <tqcore/tqcore_export.h>

namespace tqcore {

using NewHandler = void (*)();

/// Installs `handler` as the new handler and returns the one before. It covers operator new
/// only: malloc failures do not reach it on this platform.
TQCORE_EXPORT NewHandler set_bad_alloc_handler(NewHandler handler) noexcept;

/// Once per process: a dump without using the heap, a critical trace "Memory allocation
/// failed! Dump: <path>", abort. A second failure (another thread, or inside this handler)
/// raises std::bad_alloc at once.
TQCORE_EXPORT void default_bad_alloc_handler();

/// Installs a new handler for its scope (default_bad_alloc_handler unless given one) and puts
/// the previous one back.
class TQCORE_EXPORT BadAllocHandler {
 public:
  BadAllocHandler() noexcept;
  explicit BadAllocHandler(NewHandler handler) noexcept;
  ~BadAllocHandler();
  BadAllocHandler(BadAllocHandler const&) = delete;
  BadAllocHandler& operator=(BadAllocHandler const&) = delete;

 private:
  NewHandler m_previous;
};

}  // namespace tqcore
