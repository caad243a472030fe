// Shared by the delivery benchmarks: a scratch device on the disk under $TMPDIR (so that
// commits pay for a real fsync), the configuration set for reporting, a manager over the
// device's keychain, and a console reporter that also keeps each benchmark's time so that
// main can print the ratios the targets are stated in.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "config/config.h"
#include "delivery/push_delivery_manager.h"
#include "platform/files/fixtures_test.h"
#include "storage/keychain.h"

namespace pnx::bench {

struct DeliveryDevice {
  DeliveryDevice() {
    auto config = PNXConfig::sharedInstance();
    config->setAppKey("apBench001");
    config->setDeliveryReporting(true);
    store->setUserId("bench-user");
    store->setChannelId("bench-channel");
    manager->setKeychain(store);
  }
  pnx::testing::ScopedDevice device;
  std::shared_ptr<PNXKeychain> store = PNXKeychain::keychainWithService("PNX");
  std::shared_ptr<PNXPushDeliveryMananger> manager = std::make_shared<PNXPushDeliveryMananger>();
};

inline Value pushWith(const std::string& attribution) {
  return Value::dict({{"aps", Value::dict({{"alert", "bench"}})},
                      {"pnx", Value::dict({{"attribution", attribution}, {"mailingId", 4711}})}});
}

// Console output as usual, plus the mean wall and CPU time per iteration (seconds) of every
// run, by name (the mean of the repetitions when there are several).
class KeepingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      // With repetitions, the mean of them stands for the run (it comes after the runs it
      // summarises, and is all there is with --benchmark_report_aggregates_only).
      const bool mean = run.run_type == Run::RT_Aggregate && run.aggregate_name == "mean";
      if ((run.run_type == Run::RT_Iteration || mean) && !run.error_occurred) {
        double iterations = static_cast<double>(run.iterations);
        seconds_[run.run_name.str()] = run.real_accumulated_time / iterations;
        cpuSeconds_[run.run_name.str()] = run.cpu_accumulated_time / iterations;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  // The time of the first run whose name starts with prefix; 0 when there is none.
  double seconds(const std::string& prefix) const { return find(seconds_, prefix); }
  double cpuSeconds(const std::string& prefix) const { return find(cpuSeconds_, prefix); }

 private:
  static double find(const std::map<std::string, double>& times, const std::string& prefix) {
    auto found = times.lower_bound(prefix);
    return found != times.end() && found->first.rfind(prefix, 0) == 0 ? found->second : 0;
  }
  std::map<std::string, double> seconds_;
  std::map<std::string, double> cpuSeconds_;
};

}  // namespace pnx::bench
