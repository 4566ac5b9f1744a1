// Values to text and back, against the standard library and the C library.
#include <tqcore/string_to.h>

#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "comparisons.h"

namespace {

std::vector<long long> const& integers() {
  static std::vector<long long> const values = [] {
    std::mt19937_64 random(21);
    std::vector<long long> v(1024);
    for (long long& x : v) x = static_cast<long long>(random()) >> (random() % 60);
    return v;
  }();
  return values;
}

template <class Format>
void format_all(benchmark::State& state, Format format) {
  size_t k = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(format(integers()[k++ & 1023]));
  }
}

void BM_ToString_tqcore(benchmark::State& s) {
  format_all(s, [](long long v) { return tqcore::to_string(v); });
}
void BM_ToString_std(benchmark::State& s) {
  format_all(s, [](long long v) { return std::to_string(v); });
}
void BM_ToString_to_chars(benchmark::State& s) {
  format_all(s, [](long long v) {
    char buffer[24];
    auto result = std::to_chars(buffer, buffer + sizeof(buffer), v);
    return std::string(buffer, result.ptr);
  });
}
void BM_ToString_snprintf(benchmark::State& s) {
  format_all(s, [](long long v) {
    char buffer[24];
    int n = std::snprintf(buffer, sizeof(buffer), "%lld", v);
    return std::string(buffer, static_cast<size_t>(n));
  });
}
BENCHMARK(BM_ToString_tqcore);
BENCHMARK(BM_ToString_std);
BENCHMARK(BM_ToString_to_chars);
BENCHMARK(BM_ToString_snprintf);

std::vector<std::string> texts(char const* format, int count) {
  std::mt19937_64 random(22);
  std::vector<std::string> out;
  for (int k = 0; k < count; ++k) {
    char buffer[64];
    double d = std::ldexp(static_cast<double>(random() % 1000000007),
                          static_cast<int>(random() % 80) - 40);
    long long i = static_cast<long long>(random() >> (1 + random() % 40));  // non-negative
    if (format[1] == 'g')
      std::snprintf(buffer, sizeof(buffer), format, d);
    else
      std::snprintf(buffer, sizeof(buffer), format, i);
    out.push_back(buffer);
  }
  return out;
}

template <class Parse>
void parse_all(benchmark::State& state, std::vector<std::string> const& inputs, Parse parse) {
  size_t k = 0;
  for (auto _ : state) {
    std::string const& text = inputs[k++ & 1023];
    benchmark::DoNotOptimize(parse(text));
  }
}

std::vector<std::string> const& doubles() {
  static std::vector<std::string> const v = texts("%.17g", 1024);
  return v;
}
std::vector<std::string> const& decimals() {
  static std::vector<std::string> const v = texts("%lld", 1024);
  return v;
}
std::vector<std::string> const& hexadecimals() {
  static std::vector<std::string> const v = texts("%llx", 1024);
  return v;
}

void BM_StringToDouble_tqcore(benchmark::State& s) {
  parse_all(s, doubles(),
            [](std::string const& t) { return tqcore::string_to<double>(t.data(), t.size()); });
}
void BM_StringToDouble_strtod(benchmark::State& s) {
  parse_all(s, doubles(), [](std::string const& t) { return std::strtod(t.c_str(), nullptr); });
}
void BM_StringToDouble_from_chars(benchmark::State& s) {
  parse_all(s, doubles(), [](std::string const& t) {
    double d = 0;
    std::from_chars(t.data(), t.data() + t.size(), d);
    return d;
  });
}
BENCHMARK(BM_StringToDouble_tqcore);
BENCHMARK(BM_StringToDouble_strtod);
BENCHMARK(BM_StringToDouble_from_chars);

template <int Radix>
std::vector<std::string> const& integer_texts() {
  return Radix == 10 ? decimals() : hexadecimals();
}

template <int Radix>
void BM_StringToInt_tqcore(benchmark::State& s) {
  parse_all(s, integer_texts<Radix>(), [](std::string const& t) {
    return tqcore::string_to<long long>(t.data(), t.size(), Radix);
  });
}
template <int Radix>
void BM_StringToInt_strtol(benchmark::State& s) {
  parse_all(s, integer_texts<Radix>(),
            [](std::string const& t) { return std::strtoll(t.c_str(), nullptr, Radix); });
}
template <int Radix>
void BM_StringToInt_from_chars(benchmark::State& s) {
  parse_all(s, integer_texts<Radix>(), [](std::string const& t) {
    long long v = 0;
    std::from_chars(t.data(), t.data() + t.size(), v, Radix);
    return v;
  });
}
BENCHMARK_TEMPLATE(BM_StringToInt_tqcore, 10)->Name("BM_StringToInt10_tqcore");
BENCHMARK_TEMPLATE(BM_StringToInt_strtol, 10)->Name("BM_StringToInt10_strtol");
BENCHMARK_TEMPLATE(BM_StringToInt_from_chars, 10)->Name("BM_StringToInt10_from_chars");
BENCHMARK_TEMPLATE(BM_StringToInt_tqcore, 16)->Name("BM_StringToInt16_tqcore");
BENCHMARK_TEMPLATE(BM_StringToInt_strtol, 16)->Name("BM_StringToInt16_strtol");
BENCHMARK_TEMPLATE(BM_StringToInt_from_chars, 16)->Name("BM_StringToInt16_from_chars");

tqcore_bench::RegisterComparison const g_comparisons[] = {
    {"BM_ToString_tqcore", "BM_ToString_std", 1.0},
    {"BM_ToString_tqcore", "BM_ToString_to_chars", 1.0},
    {"BM_ToString_tqcore", "BM_ToString_snprintf", 0.4},
    {"BM_StringToDouble_tqcore", "BM_StringToDouble_strtod", 0.25},
    {"BM_StringToDouble_tqcore", "BM_StringToDouble_from_chars", 1.0 / 0.9},
    {"BM_StringToInt10_tqcore", "BM_StringToInt10_strtol", 0.5},
    {"BM_StringToInt10_tqcore", "BM_StringToInt10_from_chars", 1.0 / 0.9},
    {"BM_StringToInt16_tqcore", "BM_StringToInt16_strtol", 0.5},
    {"BM_StringToInt16_tqcore", "BM_StringToInt16_from_chars", 1.0 / 0.9}};

}  // namespace
