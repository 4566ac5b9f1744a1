// What the process-wide state of each family offers the library's fork handlers and its last
// cleanup. The handlers take every process-wide lock in one fixed order (the order below) and
// release them in reverse, so that a child forked while another thread held one of them does
// not hang at its first use.
#pragma once

namespace tqcore {
namespace impl {

// The symbol engine's lock: taken first, since symbol work may reach every other family.
void symbol_engine_before_fork() noexcept;
void symbol_engine_after_fork(bool in_child) noexcept;
// The stack walker's lock around libunwind, whose own locks have none.
void unwinder_before_fork() noexcept;
void unwinder_after_fork(bool in_child) noexcept;

// Static instances: the build lock, then the cleanup registry's lock.
void static_instance_before_fork();
void static_instance_after_fork();

// The key caches' shard locks, then the lock of the unique keys' names.
void key_caches_before_fork();
void key_caches_after_fork();

// The lock of the signalling scope check's lists.
void scope_check_before_fork();
void scope_check_after_fork();

// The sequential identifiers' lock; a child starts a new clock sequence and node, so that it
// never repeats its parent's identifiers.
void sequential_state_before_fork();
void sequential_state_after_fork(bool in_child);

// The lock of the silenced assertion sites, held only around a look-up or an insertion.
void ignored_asserts_before_fork() noexcept;
void ignored_asserts_after_fork(bool in_child) noexcept;

// The random generator's lock, last: naming keys and sequential identifiers draw random words
// under their own locks. A child reseeds.
void random_before_fork() noexcept;
void random_after_fork(bool in_child) noexcept;

// The process's last cleanup, registered first so that it runs after every static instance:
// interning raises from then on, and the scope check gives its thread key back.
void key_caches_close();
void scope_check_close();

}  // namespace impl
}  // namespace tqcore
