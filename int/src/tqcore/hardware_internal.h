// What the affinity and priority sources share.
#pragma once

#include <ace/OS_NS_Thread.h>

#include <string>

namespace tqcore {
namespace impl {

// A thread's handle as reports show it, through streamers::Pointer.
std::string thread_handle_text(ACE_Thread_ID const& thread);

}  // namespace impl
}  // namespace tqcore
