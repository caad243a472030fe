// One sendPushDelivery with a long queue stored: the keychain read of the queue, the merge
// of the new record and the one-transaction write back (with the retry gate closed, so that
// no request is made and only the queue work is timed). Targets: under 25 ms with 10,000
// records queued, and at most 2.2 times that cost with 20,000 (growth no worse than linear).
// Both sizes run in the same process, one after the other; main prints the ratio.
//
//   build/release/bench/delivery_queue_bench

#include <cstdio>

#include "bench/delivery_bench_support.h"
#include "delivery/delivery_records.h"

namespace {

using pnx::Value;

void queueOf(pnx::bench::DeliveryDevice& device, long size) {
  pnx::Array records;
  for (long i = 0; i < size; ++i) {
    records.push_back(Value::dict({{"userId", "bench-user"},
                                   {"channelId", "bench-channel"},
                                   {"attribution", "queued-" + std::to_string(i)},
                                   {"mailingId", 4711}}));
  }
  device.store->setObject(Value(std::move(records)), pnx::kPushQueueItem);
  // A back-off date far ahead: the push is stored and waits, nothing goes on the wire.
  device.store->setObject(Value(pnx::Date::now().addingTimeInterval(86400)), pnx::kRetryAfterItem);
}

void BM_SendPushDeliveryWithQueue(benchmark::State& state) {
  pnx::bench::DeliveryDevice device;
  queueOf(device, state.range(0));
  long n = 0;
  for (auto _ : state) {
    device.manager->sendPushDelivery(pnx::bench::pushWith("new-" + std::to_string(n++)));
  }
  state.counters["queued"] = static_cast<double>(device.manager->pushQueue().size());
}
BENCHMARK(BM_SendPushDeliveryWithQueue)
    ->Arg(10000)
    ->Arg(20000)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  pnx::bench::KeepingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double at10k = reporter.seconds("BM_SendPushDeliveryWithQueue/10000");
  double at20k = reporter.seconds("BM_SendPushDeliveryWithQueue/20000");
  if (at10k > 0 && at20k > 0) {
    std::printf("sendPushDelivery with 10,000 queued: %.2f ms wall, %.2f ms CPU (target < 25 ms)\n",
                at10k * 1e3, reporter.cpuSeconds("BM_SendPushDeliveryWithQueue/10000") * 1e3);
    std::printf("cost at 20,000 / cost at 10,000: %.2f wall, %.2f CPU (target <= 2.2)\n",
                at20k / at10k,
                reporter.cpuSeconds("BM_SendPushDeliveryWithQueue/20000") /
                    reporter.cpuSeconds("BM_SendPushDeliveryWithQueue/10000"));
  }
  benchmark::Shutdown();
  return 0;
}
