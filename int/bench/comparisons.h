// Pairs of benchmarks that bench_main reports side by side as ratios.
#pragma once

#include <string>
#include <vector>

namespace tqcore_bench {

struct Comparison {
  std::string ours;
  std::string peer;
  double goal;  // the highest acceptable ratio ours / peer; 0 when only reported
};

// Benchmarks register their comparisons at static initialisation.
std::vector<Comparison>& comparisons();

struct RegisterComparison {
  RegisterComparison(std::string ours, std::string peer, double goal) {
    comparisons().push_back(Comparison{std::move(ours), std::move(peer), goal});
  }
};

}  // namespace tqcore_bench
