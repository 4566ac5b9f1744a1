// Raising errors: creating a record, throwing and matching, and matching a code.
#include <tqcore/error_exception.h>

#include <absl/status/status.h>
#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>

#include "comparisons.h"

namespace {

char const kFileId[] = "$Id: //tqcore/int/bench/error_bench.cpp#1 $";

// A plain struct as large as a record, for the allocation-and-construct baseline.
struct SameSizeAsErrorInfo {
  char bytes[sizeof(tqcore::ErrorInfo)];
};

void BM_ErrorInfo_CreateFromLiterals(benchmark::State& state) {
  for (auto _ : state) {
    tqcore::ErrorInfo::Ptr error =
        tqcore::ErrorInfo::create(tqcore::error::tqcore_uuid_parse, "Invalid UUID text.",
                                  tqcore::SourceLocation("bench::parse()", kFileId, __LINE__));
    benchmark::DoNotOptimize(error.get());
  }
}
BENCHMARK(BM_ErrorInfo_CreateFromLiterals);

void BM_StdMakeShared_SameSizeStruct(benchmark::State& state) {
  for (auto _ : state) {
    auto p = std::make_shared<SameSizeAsErrorInfo>();
    benchmark::DoNotOptimize(p.get());
  }
}
BENCHMARK(BM_StdMakeShared_SameSizeStruct);

void BM_AbslStatus_FromLiteral(benchmark::State& state) {
  for (auto _ : state) {
    absl::Status status(absl::StatusCode::kInvalidArgument, "Invalid UUID text.");
    benchmark::DoNotOptimize(status);
  }
}
BENCHMARK(BM_AbslStatus_FromLiteral);

void BM_StdRuntimeError_FromLiteral(benchmark::State& state) {
  for (auto _ : state) {
    std::runtime_error error("Invalid UUID text.");
    benchmark::DoNotOptimize(error);
  }
}
BENCHMARK(BM_StdRuntimeError_FromLiteral);

// Raising through tqcore::throw_error throws one frame below the raising site; the peer gets
// the same depth from a throwing helper of its own.
[[gnu::noinline]] void raise_error_exception() {
  tqcore::throw_error(tqcore::error::tqcore_uuid_parse, "Invalid UUID text.",
                      tqcore::SourceLocation("bench::parse()", kFileId, __LINE__));
}

[[gnu::noinline, noreturn]] void throw_runtime_error(char const* message) {
  throw std::runtime_error(message);
}

[[gnu::noinline]] void raise_runtime_error() { throw_runtime_error("Invalid UUID text."); }

// Both thrown by the raising site itself.
[[gnu::noinline]] void raise_error_exception_here() {
  throw tqcore::ErrorException(
      tqcore::ErrorInfo::create(tqcore::error::tqcore_uuid_parse, "Invalid UUID text.",
                                tqcore::SourceLocation("bench::parse()", kFileId, __LINE__)));
}

[[gnu::noinline]] void raise_runtime_error_here() {
  throw std::runtime_error("Invalid UUID text.");
}

void BM_ErrorException_ThrowCatchMatch(benchmark::State& state) {
  for (auto _ : state) {
    try {
      raise_error_exception();
    } catch (tqcore::ErrorException const& e) {
      benchmark::DoNotOptimize(e.matches(tqcore::error::tqcore_uuid));
    }
  }
}
BENCHMARK(BM_ErrorException_ThrowCatchMatch);

void BM_StdRuntimeError_ThrowCatch(benchmark::State& state) {
  for (auto _ : state) {
    try {
      raise_runtime_error();
    } catch (std::runtime_error const& e) {
      benchmark::DoNotOptimize(e.what());
    }
  }
}
BENCHMARK(BM_StdRuntimeError_ThrowCatch);

void BM_ErrorException_ThrowHereCatchMatch(benchmark::State& state) {
  for (auto _ : state) {
    try {
      raise_error_exception_here();
    } catch (tqcore::ErrorException const& e) {
      benchmark::DoNotOptimize(e.matches(tqcore::error::tqcore_uuid));
    }
  }
}
BENCHMARK(BM_ErrorException_ThrowHereCatchMatch);

void BM_StdRuntimeError_ThrowHereCatch(benchmark::State& state) {
  for (auto _ : state) {
    try {
      raise_runtime_error_here();
    } catch (std::runtime_error const& e) {
      benchmark::DoNotOptimize(e.what());
    }
  }
}
BENCHMARK(BM_StdRuntimeError_ThrowHereCatch);

void BM_ErrorCode_MatchesFiveSegments(benchmark::State& state) {
  tqcore::ErrorCode const& code = tqcore::error::tqcore_string_utf8_invalid;
  char const* pattern = "error.tqcore.string";
  for (auto _ : state) {
    benchmark::DoNotOptimize(pattern);
    benchmark::DoNotOptimize(code.matches(pattern));
  }
}
BENCHMARK(BM_ErrorCode_MatchesFiveSegments);

void BM_ErrorCode_MatchesFiveSegmentsByConstant(benchmark::State& state) {
  tqcore::ErrorCode const* code = &tqcore::error::tqcore_string_utf8_invalid;
  tqcore::ErrorCode const* pattern = &tqcore::error::tqcore_string;
  for (auto _ : state) {
    benchmark::DoNotOptimize(code);
    benchmark::DoNotOptimize(pattern);
    benchmark::DoNotOptimize(code->matches(*pattern));
  }
}
BENCHMARK(BM_ErrorCode_MatchesFiveSegmentsByConstant);

tqcore_bench::RegisterComparison const g_vsMakeShared("BM_ErrorInfo_CreateFromLiterals",
                                                      "BM_StdMakeShared_SameSizeStruct", 1.2);
tqcore_bench::RegisterComparison const g_vsAbsl("BM_ErrorInfo_CreateFromLiterals",
                                                "BM_AbslStatus_FromLiteral", 0.5);
tqcore_bench::RegisterComparison const g_vsRuntimeError("BM_ErrorInfo_CreateFromLiterals",
                                                        "BM_StdRuntimeError_FromLiteral", 1.0);
tqcore_bench::RegisterComparison const g_vsThrow("BM_ErrorException_ThrowCatchMatch",
                                                 "BM_StdRuntimeError_ThrowCatch", 1.1);
tqcore_bench::RegisterComparison const g_vsThrowHere("BM_ErrorException_ThrowHereCatchMatch",
                                                     "BM_StdRuntimeError_ThrowHereCatch", 1.1);
tqcore_bench::RegisterComparison const g_matches("BM_ErrorCode_MatchesFiveSegments",
                                                 "BM_ErrorCode_MatchesFiveSegments", 0);
tqcore_bench::RegisterComparison const g_matchesConstant(
    "BM_ErrorCode_MatchesFiveSegmentsByConstant", "BM_ErrorCode_MatchesFiveSegmentsByConstant", 0);

}  // namespace
