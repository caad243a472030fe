// The foundation's readers and writers on the inputs the kit meets at its largest: a
// delivery queue of 1,000 and 10,000 records archived into and read out of a keychain item,
// and binary property lists of the same queue.
//
// build/release/bench/foundation_bench --benchmark_filter=Archive

#include <benchmark/benchmark.h>

#include <string>

#include "platform/foundation/keyed_archive.h"
#include "platform/foundation/plist.h"

namespace {

// A delivery queue as the delivery manager stores it: a set of records of four strings.
pnx::Value deliveryQueue(std::size_t records) {
  pnx::Set queue;
  for (std::size_t i = 0; i < records; ++i) {
    queue.insert(pnx::Value::dict({
        {"userId", "user-" + std::to_string(1000003 * i % 99991) + "-4b1e-9a6f"},
        {"channelId", "C" + std::to_string(i * 7 % 1013)},
        {"attribution", "campaign-" + std::to_string(i % 17)},
        {"mailingId", std::to_string(i)},
    }));
  }
  return pnx::Value(std::move(queue));
}

void BM_ArchiveQueue(benchmark::State& state) {
  const pnx::Value queue = deliveryQueue(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto archive = pnx::KeyedArchiver::archivedDataWithRootObject(queue);
    benchmark::DoNotOptimize(archive);
  }
}
BENCHMARK(BM_ArchiveQueue)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_UnarchiveQueue(benchmark::State& state) {
  const pnx::Data archive = *pnx::KeyedArchiver::archivedDataWithRootObject(
      deliveryQueue(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    benchmark::DoNotOptimize(pnx::KeyedUnarchiver::unarchiveObjectWithData(archive));
  }
  state.counters["archive_bytes"] = static_cast<double>(archive.size());
}
BENCHMARK(BM_UnarchiveQueue)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_WriteBinaryPropertyList(benchmark::State& state) {
  const pnx::Value queue = deliveryQueue(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto bytes = pnx::PropertyList::serialize(queue, pnx::PropertyList::Format::Binary);
    benchmark::DoNotOptimize(bytes);
  }
}
BENCHMARK(BM_WriteBinaryPropertyList)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
