// The everyday vocabulary: a map keyed by interned strings, a deadline from std::chrono, and
// an operation that hands back a Result holding a move-only value, which the caller moves out.
#include <tqcore/abs_rel_time.h>
#include <tqcore/object_key.h>
#include <tqcore/result.h>

#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>

struct Report {
  std::string title;
  int lines = 0;
};

// Completes at once from the cache, or later on a worker thread.
tqcore::Result<std::unique_ptr<Report>> build_report(std::string const& title, bool cached,
                                                     std::thread* worker) {
  if (cached) {
    return tqcore::Result<std::unique_ptr<Report>>::from_value(
        std::make_unique<Report>(Report{title, 3}));
  }
  tqcore::Future<std::unique_ptr<Report>> future;
  *worker = std::thread([future, title] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    future.set(std::make_unique<Report>(Report{title, 40}));
  });
  return tqcore::Result<std::unique_ptr<Report>>::from_future(future);
}

int main() {
  std::map<tqcore::StringKey, int> hits;
  for (std::string const name : {"orders", "users", "orders"}) ++hits[tqcore::StringKey(name)];
  std::cout << "orders seen " << hits[tqcore::StringKey("orders")] << " times\n";

  tqcore::AbsoluteTime const deadline(std::chrono::system_clock::now() + std::chrono::seconds(2));
  std::thread worker;
  for (bool cached : {true, false}) {
    tqcore::Result<std::unique_ptr<Report>> result = build_report("daily", cached, &worker);
    if (!result.wait(deadline)) {
      std::cout << "gave up at the deadline\n";
      return 1;
    }
    std::unique_ptr<Report> report = result.take();  // moved out: the result keeps nothing
    std::cout << report->title << ": " << report->lines << " lines"
              << (cached ? " (cached)" : " (built)") << '\n';
  }
  worker.join();
  std::chrono::nanoseconds const left = (deadline - tqcore::AbsoluteTime::now()).as_duration();
  std::cout << "time left before the deadline: "
            << std::chrono::duration_cast<std::chrono::milliseconds>(left).count() / 1000
            << " s or so\n";
}
