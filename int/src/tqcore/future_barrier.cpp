// The typed access of the barrier of futures.
#include <tqcore/barrier.h>

#include <typeinfo>

namespace tqcore {
namespace {

// A plain exception of the standard kind: typed access is a programming error, not an outcome.
class BadFutureCast : public std::bad_cast {
 public:
  char const* what() const noexcept override { return "AnyFutureBarrier : bad future cast"; }
};

}  // namespace

size_t AnyFutureBarrier::set_error_if_not_ready(ErrorInfo::Ptr const& error) const {
  size_t count = 0;
  for (AnyFuture const& element : m_elements) count += element.cell().set(error) ? 1 : 0;
  return count;
}

void AnyFutureBarrier::raise_bad_future_cast() { throw BadFutureCast(); }

}  // namespace tqcore
