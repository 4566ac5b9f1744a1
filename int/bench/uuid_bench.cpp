// Identifiers and keys against their peers: Murmur hashing against the published function and
// std::hash, Uuid against boost.uuid and libuuid, StringKey lookups against absl's flat set and
// a locked std::unordered_map, the generator against std::mt19937.
#include <tqcore/murmur_hash.h>
#include <tqcore/object_key.h>
#include <tqcore/random.h>
#include <tqcore/uuid.h>

#include <absl/container/flat_hash_set.h>
#include <absl/strings/string_view.h>
#include <benchmark/benchmark.h>
#include <uuid/uuid.h>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid.hpp>

#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "../test/murmur_reference.h"
#include "comparisons.h"

namespace {

// ---- Murmur ----------------------------------------------------------------------------------

void register_murmur(std::string const& label, size_t size) {
  auto data = std::make_shared<std::string>(size, '\0');
  for (char& c : *data) c = static_cast<char>(std::rand());
  std::string const name = "murmur/" + label + "/";
  auto add = [&](std::string const& who, std::function<uint64_t(std::string const&)> hash) {
    benchmark::RegisterBenchmark((name + who).c_str(), [data, hash](benchmark::State& state) {
      for (auto _ : state) benchmark::DoNotOptimize(hash(*data));
      state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data->size()));
    });
  };
  // Each form is wrapped alike, so the call overhead is the same on every side.
  add("tqcore", [](std::string const& d) { return tqcore::murmur_hash(d.data(), d.size()); });
  add("reference",
      [](std::string const& d) { return murmur_reference::folded(d.data(), d.size(), 42); });
  add("std_hash", [](std::string const& d) { return std::hash<std::string_view>()(d); });
  tqcore_bench::RegisterComparison(name + "tqcore", name + "reference", 1.0);
  tqcore_bench::RegisterComparison(name + "tqcore", name + "std_hash", size >= 1024 ? 1 / 1.2 : 0);
}

int const g_murmur = [] {
  register_murmur("8B", 8);
  register_murmur("16B", 16);
  register_murmur("64B", 64);
  register_murmur("1KiB", 1024);
  register_murmur("1MiB", 1 << 20);
  return 0;
}();

// ---- Uuid ------------------------------------------------------------------------------------

void BM_UuidRandom_tqcore(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(tqcore::Uuid::create_random());
}
void BM_UuidRandom_boost(benchmark::State& state) {
  boost::uuids::basic_random_generator<std::mt19937> generate;
  for (auto _ : state) benchmark::DoNotOptimize(generate());
}
void BM_UuidRandom_libuuid(benchmark::State& state) {
  uuid_t out;
  for (auto _ : state) {
    uuid_generate_random(out);
    benchmark::DoNotOptimize(out);
  }
}
void BM_UuidSequential_tqcore(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(tqcore::Uuid::create_sequential());
}
void BM_UuidSequential_libuuid(benchmark::State& state) {
  uuid_t out;
  for (auto _ : state) {
    uuid_generate_time(out);
    benchmark::DoNotOptimize(out);
  }
}

char const kText[] = "0a1b2c3d-4e5f-6a7b-8c9d-aebfc0d1e2f3";

void BM_UuidFormat_tqcore(benchmark::State& state) {
  tqcore::Uuid const uuid = tqcore::Uuid::from_string(kText);
  char text[tqcore::Uuid::kMaxTextSize];
  for (auto _ : state) {
    benchmark::DoNotOptimize(uuid.as_string(tqcore::Uuid::Hyphenated, text));
    benchmark::DoNotOptimize(text);
  }
}
void BM_UuidFormat_tqcore_string(benchmark::State& state) {
  tqcore::Uuid const uuid = tqcore::Uuid::from_string(kText);
  for (auto _ : state) benchmark::DoNotOptimize(uuid.as_string(tqcore::Uuid::Hyphenated));
}
void BM_UuidFormat_libuuid(benchmark::State& state) {
  uuid_t uuid;
  uuid_parse(kText, uuid);
  char text[37];
  for (auto _ : state) {
    uuid_unparse_lower(uuid, text);
    benchmark::DoNotOptimize(text);
  }
}
void BM_UuidParse_tqcore(benchmark::State& state) {
  tqcore::Uuid out;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tqcore::Uuid::from_string_nothrow(kText, 36, &out));
    benchmark::DoNotOptimize(out);
  }
}
void BM_UuidParse_boost(benchmark::State& state) {
  boost::uuids::string_generator parse;
  std::string const text = kText;
  for (auto _ : state) benchmark::DoNotOptimize(parse(text));
}
void BM_UuidParse_libuuid(benchmark::State& state) {
  uuid_t out;
  for (auto _ : state) {
    benchmark::DoNotOptimize(uuid_parse(kText, out));
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_UuidRandom_tqcore);
BENCHMARK(BM_UuidRandom_boost);
BENCHMARK(BM_UuidRandom_libuuid);
BENCHMARK(BM_UuidSequential_tqcore);
BENCHMARK(BM_UuidSequential_libuuid);
BENCHMARK(BM_UuidFormat_tqcore);
BENCHMARK(BM_UuidFormat_tqcore_string);
BENCHMARK(BM_UuidFormat_libuuid);
BENCHMARK(BM_UuidParse_tqcore);
BENCHMARK(BM_UuidParse_boost);
BENCHMARK(BM_UuidParse_libuuid);

// ---- StringKey lookups that hit --------------------------------------------------------------

// Short texts (no heap copy for std::string either), all interned before timing.
std::vector<std::string> const& texts() {
  static std::vector<std::string> const all = [] {
    std::vector<std::string> t;
    for (int i = 0; i < 10000; ++i) t.push_back("key-" + std::to_string(i * 7919));
    return t;
  }();
  return all;
}

void string_key_hits(benchmark::State& state) {
  static std::vector<tqcore::StringKey> const held = [] {
    std::vector<tqcore::StringKey> keys;
    for (std::string const& text : texts()) keys.emplace_back(text.data(), text.size());
    return keys;
  }();
  std::vector<std::string> const& all = texts();
  size_t i = size_t(state.thread_index()) * 4999;
  for (auto _ : state) {
    std::string const& text = all[i++ % all.size()];
    tqcore::StringKey const key(text.data(), text.size());
    benchmark::DoNotOptimize(key.hash());
  }
}

void absl_set_hits(benchmark::State& state) {
  static absl::flat_hash_set<std::string> const set(texts().begin(), texts().end());
  std::vector<std::string> const& all = texts();
  size_t i = 0;
  for (auto _ : state) {
    std::string const& text = all[i++ % all.size()];
    benchmark::DoNotOptimize(set.find(absl::string_view(text.data(), text.size())));
  }
}

void locked_map_hits(benchmark::State& state) {
  static std::mutex lock;
  static std::unordered_map<std::string, int> map = [] {
    std::unordered_map<std::string, int> m;
    for (std::string const& text : texts()) m.emplace(text, 1);
    return m;
  }();
  std::vector<std::string> const& all = texts();
  size_t i = size_t(state.thread_index()) * 4999;
  for (auto _ : state) {
    std::string const& text = all[i++ % all.size()];
    std::lock_guard<std::mutex> guard(lock);
    benchmark::DoNotOptimize(map.find(text));
  }
}

int const g_keys = [] {
  benchmark::RegisterBenchmark("stringkey_hit/1thread/tqcore", string_key_hits)->UseRealTime();
  benchmark::RegisterBenchmark("stringkey_hit/2threads/tqcore", string_key_hits)
      ->Threads(2)
      ->UseRealTime();
  benchmark::RegisterBenchmark("stringkey_hit/1thread/absl_flat_hash_set", absl_set_hits)
      ->UseRealTime();
  benchmark::RegisterBenchmark("stringkey_hit/2threads/mutex_unordered_map", locked_map_hits)
      ->Threads(2)
      ->UseRealTime();
  return 0;
}();

// ---- The generator ---------------------------------------------------------------------------

void BM_RandomUint32_tqcore(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(tqcore::random_uint32());
}
void BM_RandomUint32_mt19937(benchmark::State& state) {
  std::mt19937 generate(std::random_device{}());
  for (auto _ : state) benchmark::DoNotOptimize(generate());
}
void BM_RandomFill4KiB_tqcore(benchmark::State& state) {
  unsigned char buffer[4096];
  for (auto _ : state) {
    tqcore::random_fill(buffer, sizeof(buffer));
    benchmark::DoNotOptimize(buffer);
  }
}
void BM_RandomFill4KiB_mt19937(benchmark::State& state) {
  std::mt19937 generate(std::random_device{}());
  uint32_t buffer[1024];
  for (auto _ : state) {
    for (uint32_t& word : buffer) word = generate();
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_RandomUint32_tqcore);
BENCHMARK(BM_RandomUint32_mt19937);
BENCHMARK(BM_RandomFill4KiB_tqcore);
BENCHMARK(BM_RandomFill4KiB_mt19937);

tqcore_bench::RegisterComparison const g_comparisons[] = {
    {"BM_UuidRandom_tqcore", "BM_UuidRandom_boost", 1.0},
    {"BM_UuidRandom_tqcore", "BM_UuidRandom_libuuid", 1.0 / 50},
    {"BM_UuidSequential_tqcore", "BM_UuidSequential_libuuid", 1.0 / 100},
    {"BM_UuidFormat_tqcore", "BM_UuidFormat_libuuid", 0.5},
    {"BM_UuidFormat_tqcore_string", "BM_UuidFormat_libuuid", 0},
    {"BM_UuidParse_tqcore", "BM_UuidParse_boost", 0.2},
    {"BM_UuidParse_tqcore", "BM_UuidParse_libuuid", 0.2},
    {"stringkey_hit/1thread/tqcore", "stringkey_hit/1thread/absl_flat_hash_set", 1.5},
    {"stringkey_hit/2threads/tqcore", "stringkey_hit/1thread/tqcore", 1.3},
    {"stringkey_hit/2threads/tqcore", "stringkey_hit/2threads/mutex_unordered_map", 1.0 / 3},
    {"BM_RandomUint32_tqcore", "BM_RandomUint32_mt19937", 0},
    {"BM_RandomFill4KiB_tqcore", "BM_RandomFill4KiB_mt19937", 0}};

}  // namespace
