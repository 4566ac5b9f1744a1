// Runs the benchmarks, then prints each of ours beside its peer with the ratio and the goal.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "comparisons.h"

namespace tqcore_bench {

std::vector<Comparison>& comparisons() {
  static std::vector<Comparison> all;
  return all;
}

namespace {

// Keeps the real time per iteration of every run, by name, besides printing as usual. With
// repetitions the median of the runs stands for the benchmark.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    for (Run const& run : runs) {
      if (run.run_type == Run::RT_Iteration) {
        m_runs[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> medians() const {
    std::map<std::string, double> result;
    for (auto const& [name, times] : m_runs) {
      std::vector<double> sorted = times;
      std::sort(sorted.begin(), sorted.end());
      result[name] = sorted[sorted.size() / 2];
    }
    return result;
  }

 private:
  std::map<std::string, std::vector<double>> m_runs;
};

void print_ratios(std::map<std::string, double> const& times) {
  std::printf("\n%-48s %-44s %9s %9s %7s %6s\n", "ours", "peer", "ours ns", "peer ns", "ratio",
              "goal");
  for (Comparison const& c : comparisons()) {
    auto ours = times.find(c.ours);
    auto peer = times.find(c.peer);
    if (ours == times.end() || peer == times.end()) continue;
    double ratio = ours->second / peer->second;
    char goal[32] = "-";
    if (c.goal > 0) std::snprintf(goal, sizeof(goal), "%.2f%s", c.goal, ratio <= c.goal ? "" : "!");
    std::printf("%-48s %-44s %9.2f %9.2f %7.3f %6s\n", c.ours.c_str(), c.peer.c_str(), ours->second,
                peer->second, ratio, goal);
  }
}

// The C and C++ libraries skip atomic instructions while a process has a single thread, which
// would flatter std::shared_ptr and friends; a parked second thread keeps the field fair.
class ParkedThread {
 public:
  ParkedThread()
      : m_thread([this] {
          std::unique_lock<std::mutex> lock(m_mutex);
          m_wake.wait(lock, [this] { return m_done; });
        }) {}
  ~ParkedThread() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_done = true;
    }
    m_wake.notify_one();
    m_thread.join();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_done = false;
  std::thread m_thread;
};

}  // namespace
}  // namespace tqcore_bench

int main(int argc, char** argv) {
  bool ratios = true;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--no-ratios") == 0) {
      ratios = false;
      argv[i--] = argv[--argc];
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  tqcore_bench::ParkedThread second_thread;
  tqcore_bench::RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  if (ratios) tqcore_bench::print_ratios(reporter.medians());
  benchmark::Shutdown();
  return 0;
}
