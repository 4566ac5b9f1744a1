// The library's fork handlers: every process-wide lock is taken before fork() in one fixed
// order and released after it in both processes, so that a child forked while another thread
// held one of them does not hang at its first use.
#include <pthread.h>

#include "static_instance_internal.h"

namespace tqcore {
namespace impl {
namespace {

void before_fork() {
  symbol_engine_before_fork();
  ignored_asserts_before_fork();
  unwinder_before_fork();
  static_instance_before_fork();
  key_caches_before_fork();
  scope_check_before_fork();
  sequential_state_before_fork();
  random_before_fork();
}

void after_fork(bool in_child) {
  random_after_fork(in_child);
  sequential_state_after_fork(in_child);
  scope_check_after_fork();
  key_caches_after_fork();
  static_instance_after_fork();
  unwinder_after_fork(in_child);
  ignored_asserts_after_fork(in_child);
  symbol_engine_after_fork(in_child);
}

void after_fork_in_parent() { after_fork(false); }
void after_fork_in_child() { after_fork(true); }

// glibc removes these handlers again if the library is unloaded.
[[maybe_unused]] int const g_forkHandlers =
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);

}  // namespace
}  // namespace impl
}  // namespace tqcore
