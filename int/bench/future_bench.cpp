// Futures against std::promise and boost::promise: a cycle on one thread, a ready wait, and a
// value handed back and forth between two threads.
#include <tqcore/future.h>

#include <benchmark/benchmark.h>

#define BOOST_THREAD_VERSION 4
#include <boost/thread/future.hpp>

#include <future>
#include <memory>
#include <thread>

#include "comparisons.h"

namespace {

void BM_FutureCycle_tqcore(benchmark::State& state) {
  for (auto _ : state) {
    tqcore::Future<> future;
    future.set();
    future.get();
  }
}
void BM_FutureCycle_std(benchmark::State& state) {
  for (auto _ : state) {
    std::promise<void> promise;
    std::future<void> future = promise.get_future();
    promise.set_value();
    future.get();
  }
}
void BM_FutureCycle_boost(benchmark::State& state) {
  for (auto _ : state) {
    boost::promise<void> promise;
    boost::future<void> future = promise.get_future();
    promise.set_value();
    future.get();
  }
}
void BM_FutureWaitReady_tqcore(benchmark::State& state) {
  tqcore::Future<> future;
  future.set();
  for (auto _ : state) future.wait();
}
BENCHMARK(BM_FutureCycle_tqcore);
BENCHMARK(BM_FutureCycle_std);
BENCHMARK(BM_FutureCycle_boost);
BENCHMARK(BM_FutureWaitReady_tqcore);

// One hop of the chain: a number and the future its answer goes to.
struct Hop {
  int value;
  tqcore::Future<Hop> reply;
};

void BM_PingPong_tqcore(benchmark::State& state) {
  tqcore::Future<Hop> to_worker;
  std::thread worker([channel = to_worker]() mutable {
    for (;;) {
      Hop const hop = channel.get();
      if (hop.value < 0) return;
      tqcore::Future<Hop> next;
      hop.reply.set(Hop{hop.value + 1, next});
      channel = next;
    }
  });
  int value = 0;
  for (auto _ : state) {
    tqcore::Future<Hop> reply;
    to_worker.set(Hop{value, reply});
    Hop const answer = reply.get();
    value = answer.value;
    to_worker = answer.reply;
  }
  to_worker.set(Hop{-1, tqcore::Future<Hop>()});
  worker.join();
}

struct StdHop {
  int value;
  std::shared_ptr<std::promise<StdHop>> reply;
};

void BM_PingPong_std(benchmark::State& state) {
  auto to_worker = std::make_shared<std::promise<StdHop>>();
  std::thread worker([first = to_worker->get_future()]() mutable {
    std::future<StdHop> channel = std::move(first);
    for (;;) {
      StdHop hop = channel.get();
      if (hop.value < 0) return;
      auto next = std::make_shared<std::promise<StdHop>>();
      channel = next->get_future();
      hop.reply->set_value(StdHop{hop.value + 1, next});
    }
  });
  int value = 0;
  for (auto _ : state) {
    auto reply = std::make_shared<std::promise<StdHop>>();
    std::future<StdHop> answer_future = reply->get_future();
    to_worker->set_value(StdHop{value, reply});
    StdHop answer = answer_future.get();
    value = answer.value;
    to_worker = answer.reply;
  }
  to_worker->set_value(StdHop{-1, nullptr});
  worker.join();
}
BENCHMARK(BM_PingPong_tqcore)->UseRealTime();
BENCHMARK(BM_PingPong_std)->UseRealTime();

tqcore_bench::RegisterComparison const g_comparisons[] = {
    {"BM_FutureCycle_tqcore", "BM_FutureCycle_std", 1.0 / 3},
    {"BM_FutureCycle_tqcore", "BM_FutureCycle_boost", 1.0 / 1.5},
    {"BM_PingPong_tqcore", "BM_PingPong_std", 0.5}};

}  // namespace
