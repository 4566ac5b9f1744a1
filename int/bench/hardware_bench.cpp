// Reading the processor, against cpu_features and cpuinfo; queries after construction; the
// monotonic time providers against std::chrono::steady_clock.
#include <tqcore/cpu.h>
#include <tqcore/time_provider.h>

#include <benchmark/benchmark.h>

#include <cpuinfo.h>
#include <cpuinfo_x86.h>

#include <chrono>

#include "comparisons.h"

namespace {

using tqcore::hardware::CpuInfo;

// The processor, counting the instructions: under virtualisation each one is an exit to the
// hypervisor, so their number is the construction's cost.
class CountingSource : public CpuInfo::Source {
 public:
  CpuInfo::RegSet cpuid(uint32_t leaf, uint32_t subleaf) const override {
    ++m_count;
    CpuInfo::RegSet regs;
    CpuInfo::cpuid(leaf, subleaf, regs.eax, regs.ebx, regs.ecx, regs.edx);
    return regs;
  }
  mutable long m_count = 0;
};

void BM_CpuInfo_tqcore(benchmark::State& state) {
  CountingSource source;
  for (auto _ : state) benchmark::DoNotOptimize(CpuInfo(source));
  state.counters["cpuid"] =
      static_cast<double>(source.m_count) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_CpuInfo_tqcore);

void BM_CpuInfo_cpu_features(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(cpu_features::GetX86Info());
}
BENCHMARK(BM_CpuInfo_cpu_features);

// cpuinfo initialises once per process, whatever deinitialize says: only its first call is
// timed.
void BM_CpuInfo_cpuinfo(benchmark::State& state) {
  for (auto _ : state) {
    auto const start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(cpuinfo_initialize());
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
}
BENCHMARK(BM_CpuInfo_cpuinfo)->Iterations(1)->UseManualTime();

void BM_CpuQuery_tqcore(benchmark::State& state) {
  CpuInfo const cpu;
  for (auto _ : state) {
    benchmark::ClobberMemory();  // the answer is read from the stored registers every time
    benchmark::DoNotOptimize(cpu.avx2());
  }
}
BENCHMARK(BM_CpuQuery_tqcore);

void BM_Clock_steady_clock(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::chrono::steady_clock::now());
}
BENCHMARK(BM_Clock_steady_clock);

void BM_ClockMm_tqcore(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(tqcore::TimeProviderMm::now());
}
BENCHMARK(BM_ClockMm_tqcore);

void BM_ClockTsc_tqcore(benchmark::State& state) {
  static tqcore::TimeProviderTsc const provider;
  for (auto _ : state) benchmark::DoNotOptimize(provider.now());
}
BENCHMARK(BM_ClockTsc_tqcore);

using tqcore_bench::RegisterComparison;
RegisterComparison const g_cpuVsCpuFeatures("BM_CpuInfo_tqcore", "BM_CpuInfo_cpu_features", 0);
RegisterComparison const g_cpuVsCpuinfo("BM_CpuInfo_tqcore", "BM_CpuInfo_cpuinfo", 0);
RegisterComparison const g_mmVsSteady("BM_ClockMm_tqcore", "BM_Clock_steady_clock", 0.5);
RegisterComparison const g_tscVsSteady("BM_ClockTsc_tqcore", "BM_Clock_steady_clock", 0.3);

}  // namespace
