// One notification's delivery report, reporting on, against a local HTTP server (cpp-httplib
// on 127.0.0.1, answering 200), timed against the durable SQLite commits it makes, each
// timed bare in the same run: a transaction updating one small blob in a WAL database with
// a full sync on commit, on the same disk. Target: the notification costs at most 1.5 times
// its commits.
//
// One notification that is sent at once and accepted makes 4 commits, each needed:
//   1. the enlarged queue ("pushQueue" plus the new record): the record is durable before
//      any network activity, so a crash or a failed request cannot lose it;
//   2. the in-flight entry ("pushQueueInFlight": the records, the sending process, the
//      time): written before the records leave the queue, so that they are always in one
//      of the two items and a later process can take them back if this one dies;
//   3. the queue emptied of the records being sent: the stored queue is empty during a send
//      (other processes must not send them again meanwhile), as the application side
//      expects;
//   4. the in-flight entry removed once the outcome is known.
// On success the queue is not written again: the records already left it in 3.
//
//   build/release/bench/delivery_notification_bench

#include <httplib.h>

#include <cstdio>
#include <future>
#include <thread>

#include "bench/delivery_bench_support.h"
#include "platform/security/sqlite.h"

namespace {

constexpr int kCommitsPerNotification = 4;

class LocalServer {
 public:
  LocalServer() {
    server_.Post(".*", [](const httplib::Request&, httplib::Response& out) {
      out.set_content("{}", "application/json");
    });
    server_.set_tcp_nodelay(true);  // as a real backend answers: no delayed-ACK stall
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~LocalServer() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

void BM_Notification(benchmark::State& state) {
  pnx::bench::DeliveryDevice device;
  LocalServer server;
  PNXConfig::sharedInstance()->setBaseUrl(*pnx::URL::parse(server.url()));
  long n = 0;
  for (auto _ : state) {
    std::promise<std::size_t> sent;
    device.manager->sendPushDelivery(
        pnx::bench::pushWith("n-" + std::to_string(n++)),
        [&](std::size_t count, pnx::ErrorPtr) { sent.set_value(count); });
    if (sent.get_future().get() != 1) state.SkipWithError("the report was not sent");
  }
}
BENCHMARK(BM_Notification)->Unit(benchmark::kMillisecond)->MinTime(3);

void BM_BareCommits(benchmark::State& state) {
  pnx::testing::TempDir dir;
  auto database = pnx::SQLiteDatabase::open(dir.file("commits.db"));
  database->execute("CREATE TABLE items (account TEXT PRIMARY KEY, data BLOB)");
  pnx::Data blob(400, 0x5a);
  for (const char* account : {"pushQueue", "pushQueueInFlight"}) {
    database->execute("INSERT INTO items VALUES (?, ?)", {pnx::Value(account), pnx::Value(blob)});
  }
  long n = 0;
  for (auto _ : state) {
    for (int i = 0; i < kCommitsPerNotification; ++i) {
      blob[0] = static_cast<std::uint8_t>(n++);
      database->transaction([&](pnx::ErrorPtr* error) {
        return database->execute(
            "UPDATE items SET data = ? WHERE account = ?",
            {pnx::Value(blob), pnx::Value(i % 2 ? "pushQueueInFlight" : "pushQueue")}, error);
      });
    }
  }
}
BENCHMARK(BM_BareCommits)->Unit(benchmark::kMillisecond)->MinTime(3);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  pnx::bench::KeepingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double notification = reporter.seconds("BM_Notification");
  double commits = reporter.seconds("BM_BareCommits");
  if (notification > 0 && commits > 0) {
    std::printf("one notification: %.2f ms; its %d durable commits, bare: %.2f ms\n",
                notification * 1e3, kCommitsPerNotification, commits * 1e3);
    std::printf("notification / commits: %.2f wall (target <= 1.5); CPU %.2f ms / %.2f ms\n",
                notification / commits, reporter.cpuSeconds("BM_Notification") * 1e3,
                reporter.cpuSeconds("BM_BareCommits") * 1e3);
  }
  benchmark::Shutdown();
  return 0;
}
