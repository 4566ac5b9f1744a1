// Pairs of benchmarks that bench_main reports side by side as ratios.
#pragma once

#include <vector>

namespace tqcore_bench {

struct Comparison {
  char const* ours;
  char const* peer;
  double goal;  // the highest acceptable ratio ours / peer; 0 when only reported
};

// Benchmarks register their comparisons at static initialisation.
std::vector<Comparison>& comparisons();

struct RegisterComparison {
  RegisterComparison(char const* ours, char const* peer, double goal) {
    comparisons().push_back(Comparison{ours, peer, goal});
  }
};

}  // namespace tqcore_bench
