// The codecs against absl and OpenSSL, on random data of 16 bytes, 1 KiB and 1 MiB.
#include <tqcore/transforms.h>

#include <absl/strings/escaping.h>
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "comparisons.h"

namespace {

std::string random_bytes(size_t size) {
  std::mt19937 random(9);
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(random());
  return data;
}

template <class Body>
void add(std::string const& name, size_t bytes, Body body) {
  benchmark::RegisterBenchmark(name.c_str(), [bytes, body](benchmark::State& state) {
    for (auto _ : state) body();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  });
}

void register_base64(std::string const& label, size_t size) {
  auto data = std::make_shared<std::string>(random_bytes(size));
  auto text = std::make_shared<std::string>(tqcore::base64_encode(data->data(), data->size()));
  auto scratch = std::make_shared<std::vector<unsigned char>>(text->size() + 64);
  std::string const encode = "base64_encode/" + label + "/";
  std::string const decode = "base64_decode/" + label + "/";
  add(encode + "tqcore", size,
      [=] { benchmark::DoNotOptimize(tqcore::base64_encode(data->data(), data->size())); });
  add(encode + "absl", size, [=] { benchmark::DoNotOptimize(absl::Base64Escape(*data)); });
  add(encode + "openssl", size, [=] {
    benchmark::DoNotOptimize(EVP_EncodeBlock(scratch->data(),
                                             reinterpret_cast<unsigned char const*>(data->data()),
                                             static_cast<int>(data->size())));
  });
  add(decode + "tqcore", size, [=] { benchmark::DoNotOptimize(tqcore::base64_decode(*text)); });
  add(decode + "absl", size, [=] {
    std::string out;
    benchmark::DoNotOptimize(absl::Base64Unescape(*text, &out));
  });
  add(decode + "openssl", size, [=] {
    benchmark::DoNotOptimize(EVP_DecodeBlock(scratch->data(),
                                             reinterpret_cast<unsigned char const*>(text->data()),
                                             static_cast<int>(text->size())));
  });
  // Into a caller's buffer, as OpenSSL writes.
  auto bytes_out = std::make_shared<std::vector<char>>(data->size() + 8);
  add(encode + "tqcore_into", size, [=] {
    benchmark::DoNotOptimize(tqcore::base64_encode(data->begin(), data->end(),
                                                   reinterpret_cast<char*>(scratch->data())));
  });
  add(decode + "tqcore_into", size, [=] {
    benchmark::DoNotOptimize(tqcore::base64_decode(text->begin(), text->end(), bytes_out->data()));
  });
  // Four times as fast on large data; no slower on small, like for like.
  double const goal = size >= (1 << 20) ? 0.25 : size <= 16 ? 1.0 : 0.0;
  tqcore_bench::RegisterComparison(encode + "tqcore", encode + "absl", goal);
  tqcore_bench::RegisterComparison(decode + "tqcore", decode + "absl", goal);
  std::string const into = size <= 16 ? "tqcore_into" : "tqcore";
  tqcore_bench::RegisterComparison(encode + into, encode + "openssl", goal);
  tqcore_bench::RegisterComparison(decode + into, decode + "openssl", goal);
  // Base-32 has no common peer: at least half the speed of our base-64.
  auto text32 = std::make_shared<std::string>(tqcore::base32_encode(data->data(), data->size()));
  add("base32_encode/" + label + "/tqcore", size,
      [=] { benchmark::DoNotOptimize(tqcore::base32_encode(data->data(), data->size())); });
  add("base32_decode/" + label + "/tqcore", size,
      [=] { benchmark::DoNotOptimize(tqcore::base32_decode(*text32)); });
  tqcore_bench::RegisterComparison("base32_encode/" + label + "/tqcore", encode + "tqcore", 2.0);
  tqcore_bench::RegisterComparison("base32_decode/" + label + "/tqcore", decode + "tqcore", 2.0);
}

void register_hex(std::string const& label, size_t size) {
  auto data = std::make_shared<std::string>(random_bytes(size));
  auto text = std::make_shared<std::string>(tqcore::hex_encode(data->data(), data->size()));
  std::string const encode = "hex_encode/" + label + "/";
  std::string const decode = "hex_decode/" + label + "/";
  add(encode + "tqcore", size,
      [=] { benchmark::DoNotOptimize(tqcore::hex_encode(data->data(), data->size())); });
  add(encode + "absl", size, [=] { benchmark::DoNotOptimize(absl::BytesToHexString(*data)); });
  add(decode + "tqcore", size, [=] { benchmark::DoNotOptimize(tqcore::hex_decode(*text)); });
  add(decode + "absl", size, [=] { benchmark::DoNotOptimize(absl::HexStringToBytes(*text)); });
  double const goal = size >= 1024 ? 1.0 / 3 : 0.0;  // three times as fast
  tqcore_bench::RegisterComparison(encode + "tqcore", encode + "absl", goal);
  tqcore_bench::RegisterComparison(decode + "tqcore", decode + "absl", goal);
}

struct Registration {
  Registration() {
    for (auto [label, size] :
         {std::pair<char const*, size_t>{"16B", 16}, {"1K", 1024}, {"1M", 1 << 20}}) {
      register_base64(label, size);
      register_hex(label, size);
    }
  }
} const g_registration;

}  // namespace
