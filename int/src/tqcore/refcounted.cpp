#include <tqcore/error_code.h>
#include <tqcore/error_exception.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>

#include "file_ids.h"

namespace tqcore {

template <class T>
T AtomicOp<T>::increment(T* target) {
  return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}
template <class T>
T AtomicOp<T>::decrement(T* target) {
  return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);
}
template <class T>
T AtomicOp<T>::add(T* target, T value) {
  return __atomic_add_fetch(target, value, __ATOMIC_SEQ_CST);
}
template <class T>
T AtomicOp<T>::sub(T* target, T value) {
  return __atomic_sub_fetch(target, value, __ATOMIC_SEQ_CST);
}
template <class T>
T AtomicOp<T>::exchange(T* target, T value) {
  return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
template <class T>
T AtomicOp<T>::compare_exchange(T* target, T exchange, T comparand) {
  __atomic_compare_exchange_n(target, &comparand, exchange, false, __ATOMIC_SEQ_CST,
                              __ATOMIC_SEQ_CST);
  return comparand;  // on failure the builtin stored the value it found here
}
template <class T>
T AtomicOp<T>::read(T const* target) {
  return __atomic_load_n(target, __ATOMIC_RELAXED);
}
template <class T>
void AtomicOp<T>::write(T* target, T value) {
  __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}

template class AtomicOp<int>;
template class AtomicOp<long>;
template class AtomicOp<long long>;
template class AtomicOp<unsigned int>;
template class AtomicOp<unsigned long>;
template class AtomicOp<unsigned long long>;

namespace {

// One `lock cmpxchg16b`. Written as assembly because GCC's 16-byte atomic builtins go through
// libatomic, which may take a lock instead of the instruction.
bool compare_exchange_128(void* target, void const* exchange, void const* comparand, void* result) {
  auto* words = static_cast<unsigned long long*>(target);
  auto const* x = static_cast<unsigned long long const*>(exchange);
  auto const* c = static_cast<unsigned long long const*>(comparand);
  unsigned long long lo = c[0];
  unsigned long long hi = c[1];
  bool done;
  __asm__ __volatile__("lock cmpxchg16b %1"
                       : "=@ccz"(done), "+m"(*reinterpret_cast<__int128*>(words)), "+a"(lo),
                         "+d"(hi)
                       : "b"(x[0]), "c"(x[1])
                       : "memory");
  // On success rdx:rax still hold the comparand, which is what the target held.
  auto* out = static_cast<unsigned long long*>(result);
  out[0] = lo;
  out[1] = hi;
  return done;
}

}  // namespace

bool atomic_compare_exchange_128(long long* target, long long const* exchange,
                                 long long const* comparand, long long* result) {
  return compare_exchange_128(target, exchange, comparand, result);
}

bool atomic_compare_exchange_128(unsigned long long* target, unsigned long long const* exchange,
                                 unsigned long long const* comparand, unsigned long long* result) {
  return compare_exchange_128(target, exchange, comparand, result);
}

void RefCountPtrGuardBase::throw_too_many_readers_error() {
  throw_error(error::exception_runtimeError_overflowError, "Too many concurrent readers",
              SourceLocation("tqcore::RefCountPtrGuardBase::throw_too_many_readers_error()",
                             TQCORE_FILE_ID("refcounted"), 34));
}

char const* WeakRefPromoteException::what() const noexcept {
  return "tqcore::WeakRefPromoteException: the object has no strong reference left";
}

}  // namespace tqcore
