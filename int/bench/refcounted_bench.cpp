// Copying and dropping an owning pointer: RefCountPtr against boost::intrusive_ptr and
// std::shared_ptr.
#include <tqcore/refcount_ptr.h>

#include <benchmark/benchmark.h>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>

#include <memory>

#include "comparisons.h"

namespace {

struct TqObject : tqcore::RefCounted<tqcore::AtomicRefCount> {
  int value = 0;
};

struct BoostObject : boost::intrusive_ref_counter<BoostObject, boost::thread_safe_counter> {
  virtual ~BoostObject() = default;  // as polymorphic as RefCounted, for a fair delete path
  int value = 0;
};

struct PlainObject {
  int value = 0;
};

void BM_RefCountPtr_CopyDestroy(benchmark::State& state) {
  tqcore::RefCountPtr<TqObject> p(new TqObject);
  for (auto _ : state) {
    tqcore::RefCountPtr<TqObject> copy(p);
    benchmark::DoNotOptimize(copy.get());
  }
}
BENCHMARK(BM_RefCountPtr_CopyDestroy);

void BM_BoostIntrusivePtr_CopyDestroy(benchmark::State& state) {
  boost::intrusive_ptr<BoostObject> p(new BoostObject);
  for (auto _ : state) {
    boost::intrusive_ptr<BoostObject> copy(p);
    benchmark::DoNotOptimize(copy.get());
  }
}
BENCHMARK(BM_BoostIntrusivePtr_CopyDestroy);

void BM_StdSharedPtr_CopyDestroy(benchmark::State& state) {
  auto p = std::make_shared<PlainObject>();
  for (auto _ : state) {
    std::shared_ptr<PlainObject> copy(p);
    benchmark::DoNotOptimize(copy.get());
  }
}
BENCHMARK(BM_StdSharedPtr_CopyDestroy);

tqcore_bench::RegisterComparison const g_vsBoost("BM_RefCountPtr_CopyDestroy",
                                                 "BM_BoostIntrusivePtr_CopyDestroy", 1.05);
tqcore_bench::RegisterComparison const g_vsShared("BM_RefCountPtr_CopyDestroy",
                                                  "BM_StdSharedPtr_CopyDestroy", 0.8);

}  // namespace
