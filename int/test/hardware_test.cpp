// Affinity, the CPU survey, priorities, timer slack, time providers, environment and
// privileges, on this machine.
#include <gtest/gtest.h>

#include <tqcore/affinity.h>
#include <tqcore/cpu.h>
#include <tqcore/error_exception.h>
#include <tqcore/priority.h>
#include <tqcore/process_info.h>
#include <tqcore/scheduler.h>
#include <tqcore/time_provider.h>
#include <tqcore/version.h>

#include <dlfcn.h>
#include <sys/prctl.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "child_process.h"

namespace {

namespace fs = std::filesystem;
using tqcore::CpuAffinityMask;
using tqcore::ScopedCpuAffinity;

CpuAffinityMask mask_of(std::initializer_list<unsigned int> cpus) {
  CpuAffinityMask mask;
  for (unsigned int cpu : cpus) mask.set_cpu(cpu);
  return mask;
}

std::string text_of(CpuAffinityMask const& mask) {
  std::ostringstream text;
  text << mask;
  return text.str();
}

TEST(CpuAffinityMask, IteratesItsCpusThenStops) {
  CpuAffinityMask const mask = mask_of({0, 5, 63});
  std::vector<unsigned int> seen;
  auto cpu = mask.begin_cpu();
  for (; cpu != mask.end_cpu(); ++cpu) seen.push_back(*cpu);
  EXPECT_EQ(seen, (std::vector<unsigned int>{0, 5, 63}));
  EXPECT_THROW(++cpu, std::out_of_range);
  CpuAffinityMask const empty;
  EXPECT_TRUE(empty.begin_cpu() == empty.end_cpu());
  try {
    *empty.begin_cpu();
    ADD_FAILURE() << "no exception";
  } catch (std::out_of_range const& e) {
    EXPECT_STREQ(e.what(), "dereference of bad cpu iterator");
  }
}

TEST(CpuAffinityMask, SetsAndText) {
  EXPECT_TRUE(mask_of({64}).is_set(0));  // modulo 64
  CpuAffinityMask full;
  for (unsigned int cpu = 0; cpu < 64; ++cpu) full.set_cpu(cpu);
  EXPECT_EQ(full.size(), 64u);
  CpuAffinityMask some = mask_of({1, 2});
  some.subtract(full);
  EXPECT_EQ(some.size(), 0u);
  EXPECT_EQ(text_of(mask_of({0})), "000000001");
  EXPECT_EQ(text_of(CpuAffinityMask()), "000000000");
  EXPECT_EQ(text_of(mask_of({8})), "00000000100000000");
  std::string const top = text_of(mask_of({0, 63}));
  EXPECT_EQ(top.size(), 65u);
  EXPECT_EQ(top.substr(0, 2), "11");  // the 65th digit shows bit 0 again
}

TEST(ScopedCpuAffinity, PinsAndRestores) {
  ACE_Thread_ID const self;
  CpuAffinityMask before;
  ScopedCpuAffinity::get_thread_affinity(self, before);
  CpuAffinityMask const lowest = mask_of({*before.begin_cpu()});
  {
    ScopedCpuAffinity const pinned(lowest, self);
    CpuAffinityMask now;
    ScopedCpuAffinity::get_thread_affinity(self, now);
    EXPECT_EQ(now, lowest);
    EXPECT_EQ(pinned.old_affinity(), before);
  }
  CpuAffinityMask after;
  ScopedCpuAffinity::get_thread_affinity(self, after);
  EXPECT_EQ(after, before);
  CpuAffinityMask empty;
  EXPECT_FALSE(ScopedCpuAffinity::can_set_affinity(self, empty));
}

// One survey for the suite: on a machine whose frequency must be measured it takes a second.
class CpuSurvey : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ACE_Thread_ID const self;
    ScopedCpuAffinity::get_thread_affinity(self, s_before);
    s_cpu = new tqcore::hardware::Cpu();
  }
  static void TearDownTestSuite() { delete s_cpu; }
  static tqcore::hardware::Cpu* s_cpu;
  static CpuAffinityMask s_before;
};
tqcore::hardware::Cpu* CpuSurvey::s_cpu = nullptr;
CpuAffinityMask CpuSurvey::s_before;

TEST_F(CpuSurvey, LeavesTheThreadWhereItWas) {
  CpuAffinityMask after;
  ScopedCpuAffinity::get_thread_affinity(ACE_Thread_ID(), after);
  EXPECT_EQ(after, s_before);
  CpuAffinityMask logical;
  s_cpu->get_logical_mask(logical);
  EXPECT_EQ(logical, s_before);
  EXPECT_EQ(s_cpu->cpu_priority_list().size(), static_cast<size_t>(s_cpu->logical_cpus()));
}

TEST_F(CpuSurvey, GroupsAsTheKernelDoes) {
  std::set<std::string> packages;
  std::set<std::string> cores;
  for (auto cpu = s_before.begin_cpu(); cpu != s_before.end_cpu(); ++cpu) {
    std::string const base = "/sys/devices/system/cpu/cpu" + std::to_string(*cpu) + "/topology/";
    std::string package;
    std::string core;
    std::ifstream(base + "physical_package_id") >> package;
    std::ifstream(base + "core_id") >> core;
    packages.insert(package);
    cores.insert(package + "/" + core);
  }
  EXPECT_EQ(s_cpu->packages(), static_cast<int>(packages.size()));
  EXPECT_EQ(s_cpu->cores(), static_cast<int>(cores.size()));
  try {
    s_cpu->is_first_core_cpu(63);
    if (!s_before.is_set(63)) ADD_FAILURE() << "no exception";
  } catch (tqcore::ErrorException const& e) {
    EXPECT_TRUE(e.error()->code() == "error.tqcore.hardware.invalidCpuId");
    EXPECT_NE(std::string(e.what()).find("Cpu Id 63 not valid"), std::string::npos);
  }
}

TEST_F(CpuSurvey, TimestampFrequencyAgreesWithTheClock) {
  auto const start = std::chrono::steady_clock::now();
  auto const ticks = tqcore::hardware::Cpu::read_timestamp();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  double const seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  double const measured =
      static_cast<double>(tqcore::hardware::Cpu::read_timestamp() - ticks) / seconds;
  EXPECT_NEAR(measured / s_cpu->frequency(), 1.0, 0.01);
  tqcore::TimeProviderTsc const tsc;
  EXPECT_NEAR(tsc.nanoseconds_per_tick() * s_cpu->frequency() / 1e9, 1.0, 0.01);
}

TEST(Priority, LabelsBothWays) {
  using tqcore::ScopedPriorityClass;
  using tqcore::ScopedThreadPriority;
  EXPECT_EQ(ScopedThreadPriority::thread_priority_from_string("timecritical", 12), 15);
  EXPECT_EQ(ScopedPriorityClass::process_priority_class_from_string("NORMAL", 6), 0x20u);
  EXPECT_EQ(ScopedThreadPriority::thread_priority_as_string(7), "");
  std::ostringstream trace;
  trace << ScopedThreadPriority::TracePriority{7} << ScopedPriorityClass::TraceClass{0x40};
  EXPECT_EQ(trace.str(), "##UNKNOWN(7)Idle");
  try {
    ScopedPriorityClass::process_priority_class_from_string("Turbo", 5);
    ADD_FAILURE() << "no exception";
  } catch (tqcore::ErrorException const& e) {
    EXPECT_TRUE(e.error()->code() == "error.tqcore.hardware.priorityClass");
    EXPECT_TRUE(e.error()->nested());
  }
}

// In a child: the changes are the process's.
TEST(Priority, GuardsRestoreAndOtherThreadsRaise) {
  tqcore_test::ChildResult const child = tqcore_test::run_in_child([] {
    using tqcore::ScopedThreadPriority;
    ACE_Thread_ID const self;
    long const before = ScopedThreadPriority::get_thread_priority(self);
    long inside = 0;
    {
      ScopedThreadPriority const lower(ScopedThreadPriority::threadPriorityLowest, self);
      inside = ScopedThreadPriority::get_thread_priority(self);
    }
    bool raised = false;
    std::thread([&] {
      try {
        ScopedThreadPriority::get_thread_priority(self);
      } catch (tqcore::ErrorException const&) {
        raised = true;
      }
    }).join();
    unsigned long klass = 0;
    {
      tqcore::ScopedPriorityClass const idle(tqcore::ScopedPriorityClass::priorityClassIdle);
      klass = tqcore::ScopedPriorityClass::get_process_priority_class();
    }
    bool const restored = tqcore::ScopedPriorityClass::get_process_priority_class() == 0x20;
    return inside == -2 && before == 0 && raised && klass == 0x40 && restored ? 0 : 1;
  });
  EXPECT_TRUE(child.exited(0)) << child.output;
}

TEST(SchedulerLatency, SetsAndRestoresTheTimerSlack) {
  long const before = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
  {
    tqcore::SchedulerLatency const latency(tqcore::RelativeTime::nanoseconds(1500000));
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0), 1500000);
    EXPECT_EQ(latency.requested_latency().as_nsec(), 1500000);
  }
  EXPECT_EQ(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0), before);
  EXPECT_GT(tqcore::SchedulerLatency::min_scheduler_latency().as_nsec(), 0);
}

TEST(TimeProviders, MonotonicAndNearTheWallClock) {
  tqcore::RelativeTime previous = tqcore::TimeProviderMm::now();
  for (int i = 0; i < 1000; ++i) {
    tqcore::RelativeTime const now = tqcore::TimeProviderMm::now();
    ASSERT_GE(now.as_nsec(), previous.as_nsec());
    previous = now;
  }
  auto const steady = std::chrono::steady_clock::now().time_since_epoch();
  long long const fine = tqcore::TimeProviderQpc().now().as_nsec();
  EXPECT_LT(std::llabs(fine - std::chrono::duration_cast<std::chrono::nanoseconds>(steady).count()),
            10000000LL);
  ACE_Time_Value const synthetic = tqcore::monotonic_synthetic_ace_gettimeofday();
  ACE_Time_Value const wall = tqcore::AbsoluteTime::now().as_ace_time_value();
  EXPECT_LT(std::fabs((synthetic - wall).sec() + (synthetic - wall).usec() / 1e6), 1.0);
}

TEST(Environment, ReadsExpandsAndNamesLibraries) {
  setenv("TQCORE_TEST_EMPTY", "", 1);
  setenv("TQCORE_TEST_LONG", std::string(5000, 'v').c_str(), 1);
  unsetenv("TQCORE_TEST_UNSET");
  bool exists = false;
  EXPECT_EQ(tqcore::get_environment_variable("TQCORE_TEST_EMPTY", 17, &exists), "");
  EXPECT_TRUE(exists);
  EXPECT_EQ(tqcore::get_environment_variable("TQCORE_TEST_UNSET", 17, &exists), "");
  EXPECT_FALSE(exists);
  EXPECT_EQ(tqcore::get_environment_variable("TQCORE_TEST_LONG", 16, nullptr).size(), 5000u);
  EXPECT_THROW(tqcore::get_environment_variable("A\0B", 3, nullptr), tqcore::ErrorException);
  setenv("TQCORE_TEST_X", "ex", 1);
  EXPECT_EQ(tqcore::expand_environment_variables(
                "$TQCORE_TEST_X/${TQCORE_TEST_X}y $TQCORE_TEST_UNSET ${TQCORE_TEST_X $ 5$1"),
            "ex/exy $TQCORE_TEST_UNSET ${TQCORE_TEST_X $ 5$1");
  // The rule names this build's own library file.
  Dl_info info{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&tqcore::expand_environment_variables), &info), 0);
  std::string const path = fs::canonical(info.dli_fname).string();
  EXPECT_EQ(path.substr(path.rfind('/') + 1),
            tqcore::get_shared_library_name_for_module("tqcore", TQCORE_VERSION_MAJOR,
                                                       TQCORE_VERSION_MINOR));
}

class CountingPrivileges : public tqcore::impl::ProcessPrivilegesImpl {
 public:
  void write_trace(std::ostream& stream) const override { stream << "counting"; }
  void to_privileged_state(tqcore::ErrorInfo::Ptr*) override { ++up; }
  void to_unprivileged_state(tqcore::ErrorInfo::Ptr*) override { ++down; }
  int up = 0;
  int down = 0;
};

TEST(ProcessPrivileges, CountsItsSteps) {
  auto* steps = new CountingPrivileges();
  tqcore::ProcessPrivileges privileges{
      tqcore::RefCountPtr<tqcore::impl::ProcessPrivilegesImpl>(steps)};
  tqcore::ErrorInfo::Ptr error;
  for (int i = 0; i < 3; ++i) privileges.to_privileged(&error);
  for (int i = 0; i < 2; ++i) privileges.to_unprivileged(&error);
  EXPECT_TRUE(privileges.is_privileged());
  EXPECT_EQ(steps->up, 1);
  EXPECT_EQ(steps->down, 0);
  privileges.to_unprivileged(&error);
  EXPECT_FALSE(privileges.is_privileged());
  EXPECT_EQ(steps->down, 1);
  std::ostringstream trace;
  trace << tqcore::ProcessPrivileges::process_privileges();
  EXPECT_EQ(trace.str(), "No process privileges implementation on this platform");
}

}  // namespace
