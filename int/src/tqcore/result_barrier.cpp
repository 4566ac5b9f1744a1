// The typed access of the barrier of results.
#include <tqcore/barrier.h>

#include <typeinfo>

// ---- Barrier of results ----------------------------------------------------------------------

namespace tqcore {
namespace impl {

class BadResultCast : public std::bad_cast {
 public:
  char const* what() const noexcept override { return "AnyResultBarrier : bad result cast"; }
};

}  // namespace impl

void AnyResultBarrier::raise_bad_result_cast() { throw impl::BadResultCast(); }

}  // namespace tqcore
