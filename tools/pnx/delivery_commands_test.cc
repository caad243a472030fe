// pnx queue, pnx resend and the _report driver as processes, against `pnx serve` as a
// process: what one process queues another sees and resends, and a process killed during a
// request leaves its records for the next one.

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>

#include <httplib.h>

#include "tools/pnx/run_pnx_test.h"

namespace {

using namespace std::chrono_literals;

// A child pnx process running in the background, killed at the end whatever happens.
class Background {
 public:
  Background(std::vector<std::string> arguments, const std::string& out) {
    arguments.insert(arguments.begin(), PNX_BINARY);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    auto environment = pnx_test_detail::childEnvironment({});
    auto argv = pnx_test_detail::pointers(arguments);
    auto envp = pnx_test_detail::pointers(environment);
    if (posix_spawn(&pid_, PNX_BINARY, &actions, nullptr, argv.data(), envp.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Background() { kill(SIGKILL); }
  void kill(int signal) {
    if (pid_ <= 0) return;
    ::kill(pid_, signal);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

// A device, a copy of the sample bundle whose baseUrl points at a `pnx serve` of its own,
// and helpers to run pnx on them.
class DeliveryCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::copy(pnxSampleBundle(), dir_.file("bundle"));
    serve_ = std::make_unique<Background>(
        std::vector<std::string>{"--device", dir_.file("serve-device"), "serve", "--port", "0"},
        dir_.file("serve.out"));
    // The match points into the text it was found in, so the text lives outside the loop.
    std::string first;
    std::smatch match;
    for (int i = 0; i < 500; ++i) {
      first = dir_.read("serve.out");
      if (std::regex_search(first, match, std::regex("127\\.0\\.0\\.1:([0-9]+)"))) break;
      std::this_thread::sleep_for(10ms);
    }
    ASSERT_FALSE(match.empty()) << "pnx serve did not start";
    port_ = std::stoi(match[1]);
    pointAt("http://127.0.0.1:" + std::to_string(port_));
    ASSERT_EQ(pnx({"identity", "--user-id", "u1", "--channel-id", "c1"}).exitCode, 0);
  }

  void pointAt(const std::string& baseUrl) {
    std::string config = dir_.read("bundle/PnxConfig.json");
    config = std::regex_replace(config, std::regex("http://127\\.0\\.0\\.1:[0-9]+"), baseUrl);
    dir_.write("bundle/PnxConfig.json", config);
  }
  std::vector<std::string> withDevice(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"--device", dir_.file("device"), "--bundle", dir_.file("bundle")});
    return arguments;
  }
  PnxRun pnx(std::vector<std::string> arguments) {
    return runPnx(withDevice(std::move(arguments)));
  }
  pnx::Value json(std::vector<std::string> arguments) {
    PnxRun run = pnx(std::move(arguments));
    auto value = run.json();
    EXPECT_TRUE(value) << run.out << run.err;
    return value.value_or(pnx::Value());
  }
  void setFaults(const std::string& faults) {
    httplib::Client client("127.0.0.1", port_);
    auto answer = client.Post("/_pnx/faults", faults, "application/json");
    ASSERT_TRUE(answer && answer->status == 200);
  }
  std::size_t acceptedReports() {
    httplib::Client client("127.0.0.1", port_);
    auto answer = client.Get("/_pnx/reports");
    return answer ? pnx::JSON::parse(answer->body).value_or(pnx::Value()).size() : 0;
  }
  static pnx::Value record(const std::string& attribution) {
    return pnx::Value::dict(
        {{"attribution", attribution}, {"channelId", "c1"}, {"mailingId", 1}, {"userId", "u1"}});
  }

  pnx::testing::TempDir dir_;
  std::unique_ptr<Background> serve_;
  int port_ = 0;
};

TEST_F(DeliveryCommands, QueueShowsWhatFailedAndResendClearsIt) {
  setFaults(R"(["status=500,times=1"])");
  ASSERT_EQ(pnx({"_report", "--prefix", "p", "--count", "1"}).exitCode, 0);
  EXPECT_EQ(json({"queue"}), pnx::Value::dict({{"pushQueue", pnx::Value::array({record("p-0")})},
                                               {"retryAfter", pnx::Value()},
                                               {"inFlight", pnx::Value(pnx::Array())}}));
  EXPECT_EQ(json({"resend"}),
            pnx::Value::dict({{"sent", 1}, {"error", pnx::Value()}, {"retryAfter", pnx::Value()}}));
  EXPECT_EQ(json({"queue"})["pushQueue"], pnx::Value(pnx::Array()));
  EXPECT_EQ(acceptedReports(), 1u);
  // Nothing left: resending sends nothing and succeeds.
  EXPECT_EQ(json({"resend"})["sent"], pnx::Value(0));
}

TEST_F(DeliveryCommands, ABackOffHoldsResendsAndFailuresExitWithTheirError) {
  setFaults(R"(["status=429,retry-after=120"])");
  ASSERT_EQ(pnx({"_report", "--prefix", "p", "--count", "1"}).exitCode, 0);
  pnx::Value queue = json({"queue"});
  ASSERT_TRUE(queue["retryAfter"].isString());
  EXPECT_TRUE(std::regex_match(
      *queue["retryAfter"].asString(),
      std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}[+-]\\d\\d:\\d\\d")));
  PnxRun held = pnx({"resend"});
  EXPECT_EQ(held.exitCode, 0);
  EXPECT_EQ(held.json().value()["sent"], pnx::Value(0));
  EXPECT_EQ(held.json().value()["retryAfter"], queue["retryAfter"]);

  ASSERT_EQ(pnx({"keychain", "rm", "retryAfter", "--service", "PNX", "--group", "A1B2C3D4E5.PNX"})
                .exitCode,
            0);
  pointAt("http://127.0.0.1:1");
  PnxRun failed = pnx({"resend"});
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_EQ(failed.json().value()["error"]["domain"], pnx::Value("NSURLErrorDomain"));
  EXPECT_EQ(json({"queue"})["pushQueue"], pnx::Value::array({record("p-0")}));
}

TEST_F(DeliveryCommands, AProcessKilledDuringItsRequestLeavesItsRecordsForTheNext) {
  setFaults(R"(["delay=30,times=1"])");
  Background reporter(withDevice({"_report", "--prefix", "k", "--count", "1"}),
                      dir_.file("report.out"));
  // The send records its records in flight, then empties the queue: wait for both.
  pnx::Value queue;
  for (int i = 0; i < 500 && (queue["inFlight"].size() == 0 || queue["pushQueue"].size() != 0);
       ++i) {
    std::this_thread::sleep_for(10ms);
    queue = json({"queue"});
  }
  ASSERT_EQ(queue["inFlight"], pnx::Value::array({record("k-0")}));
  ASSERT_EQ(queue["pushQueue"], pnx::Value(pnx::Array()));
  reporter.kill(SIGKILL);

  EXPECT_EQ(json({"resend"})["sent"], pnx::Value(1));
  EXPECT_EQ(json({"queue"}), pnx::Value::dict({{"pushQueue", pnx::Value(pnx::Array())},
                                               {"retryAfter", pnx::Value()},
                                               {"inFlight", pnx::Value(pnx::Array())}}));
}

TEST_F(DeliveryCommands, FailuresExitOneWithALineThatNamesThem) {
  setFaults(R"(["status=503"])");
  ASSERT_EQ(pnx({"_report", "--prefix", "f", "--count", "1"}).exitCode, 0);
  PnxRun refused = pnx({"resend"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.json().value()["error"]["code"], pnx::Value(105));
  EXPECT_EQ(refused.errLines().size(), 1u);
  EXPECT_NE(refused.err.find("HTTP connection to PNX server failed"), std::string::npos);

  // A keychain that cannot be read is no empty queue.
  dir_.write("device/keychain.db", std::string(4096, 'x'));
  for (const char* command : {"queue", "resend"}) {
    PnxRun broken = pnx({command});
    EXPECT_EQ(broken.exitCode, 1) << command;
    EXPECT_NE(broken.err.find("pushQueue"), std::string::npos) << command << broken.err;
  }
}

TEST_F(DeliveryCommands, AnUnreadableKeychainIsNamedWithItsStatus) {
  dir_.write("device/keychain.db", std::string(4096, 'x'));
  PnxRun broken = pnx({"queue"});
  EXPECT_EQ(broken.exitCode, 1);
  EXPECT_NE(broken.err.find("(errSecInteractionNotAllowed (-25308)"), std::string::npos)
      << broken.err;
}

}  // namespace
