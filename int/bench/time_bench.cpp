// Time text both ways, against the C library and Abseil.
#include <tqcore/abs_rel_time.h>

#include <benchmark/benchmark.h>

#include <absl/time/time.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "comparisons.h"

namespace {

constexpr size_t kCount = 1024;
constexpr long long kBillion = 1000000000LL;

// Instants from 1970 to 2100, as nanoseconds since the Unix epoch.
std::vector<long long> const& unix_nanoseconds() {
  static std::vector<long long> const values = [] {
    std::mt19937_64 random(31);
    std::vector<long long> v(kCount);
    for (long long& x : v) x = static_cast<long long>(random() % (4102444800ULL * kBillion));
    return v;
  }();
  return values;
}

tqcore::AbsoluteTime at(long long unix_ns) {
  static tqcore::AbsoluteTime const epoch =
      tqcore::AbsoluteTime::from_string("1970-01-01T00:00:00Z");
  return epoch + tqcore::RelativeTime::nanoseconds(unix_ns);
}

std::vector<tqcore::AbsoluteTime> const& instants() {
  static std::vector<tqcore::AbsoluteTime> const values = [] {
    std::vector<tqcore::AbsoluteTime> v;
    for (long long ns : unix_nanoseconds()) v.push_back(at(ns));
    return v;
  }();
  return values;
}

std::vector<std::string> const& iso_texts() {
  static std::vector<std::string> const values = [] {
    std::vector<std::string> v;
    for (tqcore::AbsoluteTime const& t : instants()) v.push_back(t.as_iso8601_string());
    return v;
  }();
  return values;
}

template <class Body>
void each(benchmark::State& state, Body body) {
  size_t k = 0;
  for (auto _ : state) benchmark::DoNotOptimize(body(k++ & (kCount - 1)));
}

void BM_TimeFormat_tqcore(benchmark::State& s) {
  each(s, [](size_t k) { return instants()[k].as_string(); });
}
void BM_TimeFormatIso_tqcore(benchmark::State& s) {
  each(s, [](size_t k) { return instants()[k].as_iso8601_string(); });
}
void BM_TimeFormat_strftime(benchmark::State& s) {
  each(s, [](size_t k) {
    long long const ns = unix_nanoseconds()[k];
    time_t const seconds = static_cast<time_t>(ns / kBillion);
    tm fields;
    gmtime_r(&seconds, &fields);
    char text[64];
    size_t n = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &fields);
    n += static_cast<size_t>(std::snprintf(text + n, sizeof(text) - n, ".%09lld", ns % kBillion));
    return std::string(text, n);
  });
}
void BM_TimeFormat_absl(benchmark::State& s) {
  each(s, [](size_t k) {
    return absl::FormatTime("%Y-%m-%d %H:%M:%E*S", absl::FromUnixNanos(unix_nanoseconds()[k]),
                            absl::UTCTimeZone());
  });
}

void BM_TimeParse_tqcore(benchmark::State& s) {
  each(s, [](size_t k) {
    tqcore::AbsoluteTime t;
    tqcore::AbsoluteTime::from_string_nothrow(iso_texts()[k], &t);
    return t;
  });
}
void BM_TimeParse_strptime(benchmark::State& s) {
  each(s, [](size_t k) {
    char const* text = iso_texts()[k].c_str();
    tm fields{};
    char const* rest = strptime(text, "%Y-%m-%dT%H:%M:%S", &fields);
    long long ns = static_cast<long long>(timegm(&fields)) * kBillion;
    if (rest != nullptr && *rest == '.') {
      char* end = nullptr;
      long fraction = std::strtol(rest + 1, &end, 10);
      for (long digits = end - rest - 1; digits < 9; ++digits) fraction *= 10;
      ns += fraction;
    }
    return ns;
  });
}
void BM_TimeParse_absl(benchmark::State& s) {
  each(s, [](size_t k) {
    absl::Time t;
    std::string error;
    absl::ParseTime(absl::RFC3339_full, iso_texts()[k], &t, &error);
    return t;
  });
}
BENCHMARK(BM_TimeFormat_tqcore);
BENCHMARK(BM_TimeFormatIso_tqcore);
BENCHMARK(BM_TimeFormat_strftime);
BENCHMARK(BM_TimeFormat_absl);
BENCHMARK(BM_TimeParse_tqcore);
BENCHMARK(BM_TimeParse_strptime);
BENCHMARK(BM_TimeParse_absl);

// Durations from a millisecond to a few days, with a random fraction.
std::vector<long long> const& duration_nanoseconds() {
  static std::vector<long long> const values = [] {
    std::mt19937_64 random(32);
    std::vector<long long> v(kCount);
    for (long long& x : v)
      x = static_cast<long long>(random() % (400000ULL * kBillion) >> (random() % 24));
    return v;
  }();
  return values;
}

std::vector<std::string> duration_texts(bool iso) {
  std::vector<std::string> v;
  for (long long ns : duration_nanoseconds()) {
    tqcore::RelativeTime const d = tqcore::RelativeTime::nanoseconds(ns);
    v.push_back(iso ? d.as_iso8601_string() : d.as_string());
  }
  return v;
}

std::vector<std::string> const& human_durations() {
  static std::vector<std::string> const v = duration_texts(false);
  return v;
}
std::vector<std::string> const& iso_durations() {
  static std::vector<std::string> const v = duration_texts(true);
  return v;
}
std::vector<std::string> const& absl_durations() {
  static std::vector<std::string> const v = [] {
    std::vector<std::string> out;
    for (long long ns : duration_nanoseconds())
      out.push_back(absl::FormatDuration(absl::Nanoseconds(ns)));
    return out;
  }();
  return v;
}

void BM_DurationFormat_tqcore(benchmark::State& s) {
  each(s, [](size_t k) {
    return tqcore::RelativeTime::nanoseconds(duration_nanoseconds()[k]).as_string();
  });
}
void BM_DurationFormatIso_tqcore(benchmark::State& s) {
  each(s, [](size_t k) {
    return tqcore::RelativeTime::nanoseconds(duration_nanoseconds()[k]).as_iso8601_string();
  });
}
void BM_DurationFormat_absl(benchmark::State& s) {
  each(s,
       [](size_t k) { return absl::FormatDuration(absl::Nanoseconds(duration_nanoseconds()[k])); });
}

template <std::vector<std::string> const& (*Texts)()>
void BM_DurationParse_tqcore(benchmark::State& s) {
  each(s, [](size_t k) {
    tqcore::RelativeTime d;
    tqcore::RelativeTime::from_string_nothrow(Texts()[k], &d);
    return d;
  });
}
void BM_DurationParse_absl(benchmark::State& s) {
  each(s, [](size_t k) {
    absl::Duration d;
    absl::ParseDuration(absl_durations()[k], &d);
    return d;
  });
}
BENCHMARK(BM_DurationFormat_tqcore);
BENCHMARK(BM_DurationFormatIso_tqcore);
BENCHMARK(BM_DurationFormat_absl);
BENCHMARK_TEMPLATE(BM_DurationParse_tqcore, human_durations)->Name("BM_DurationParse_tqcore");
BENCHMARK_TEMPLATE(BM_DurationParse_tqcore, iso_durations)->Name("BM_DurationParseIso_tqcore");
BENCHMARK(BM_DurationParse_absl);

tqcore_bench::RegisterComparison const g_comparisons[] = {
    {"BM_TimeFormat_tqcore", "BM_TimeFormat_strftime", 1.0 / 3},
    {"BM_TimeFormat_tqcore", "BM_TimeFormat_absl", 1.0 / 5},
    {"BM_TimeFormatIso_tqcore", "BM_TimeFormat_absl", 1.0 / 5},
    {"BM_TimeParse_tqcore", "BM_TimeParse_strptime", 1.0 / 3},
    {"BM_TimeParse_tqcore", "BM_TimeParse_absl", 1.0 / 5},
    {"BM_DurationParse_tqcore", "BM_DurationParse_absl", 1.0},
    {"BM_DurationParseIso_tqcore", "BM_DurationParse_absl", 0},
    {"BM_DurationFormat_tqcore", "BM_DurationFormat_absl", 0.5},
    {"BM_DurationFormatIso_tqcore", "BM_DurationFormat_absl", 0}};

}  // namespace
