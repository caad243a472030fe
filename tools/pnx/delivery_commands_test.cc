// pnx deliver, queue, resend and the _report driver as processes, against `pnx serve` as a
// process (media and delivery reports): the whole road of a push, what a later process sees
// of it, and a process killed during a request leaving its records for the next one.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>

#include "tools/pnx/run_pnx_test.h"

namespace {

using pnx::Value;

// A device, and a copy of the sample bundle whose baseUrl points at a `pnx serve` of its
// own that serves examples/media; the device's identity is u1 on channel c1.
class PnxDeliveryCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GT(serve_.port(), 0) << "pnx serve did not start: " << serve_.err();
    std::filesystem::copy(kPnxSampleBundle, dir_.file("bundle"));
    const std::string config = dir_.read("bundle/PnxConfig.json");
    dir_.write("bundle/PnxConfig.json", std::regex_replace(config, kLocalUrl, serve_.url()));
    json({"identity", "--user-id", "u1", "--channel-id", "c1"});
  }

  std::vector<std::string> withDevice(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"--device", dir_.file("device"), "--bundle", dir_.file("bundle")});
    return arguments;
  }
  PnxRun pnx(std::vector<std::string> arguments, const std::string& input = {}) {
    return runPnx(withDevice(std::move(arguments)), input);
  }
  Value json(std::vector<std::string> arguments, const std::string& input = {}) {
    return expectPnxJSON(pnx(std::move(arguments), input));
  }
  // An example payload, its media URL pointing at the server.
  std::string payload(const std::string& name) {
    const std::string text = readWholeFile(PNX_SOURCE_DIR "/examples/payloads/" + name);
    return std::regex_replace(text, kLocalUrl, serve_.url());
  }
  void setFaults(const std::string& faults) {
    auto answer = serve_.client().Post("/_pnx/faults", faults, "application/json");
    ASSERT_TRUE(answer && answer->status == 200);
  }
  static Value record(const std::string& attribution) {
    return Value::dict(
        {{"attribution", attribution}, {"channelId", "c1"}, {"mailingId", 1}, {"userId", "u1"}});
  }
  static Value queue(Value pushQueue, Value inFlight = Value(pnx::Array())) {
    return Value::dict({{"pushQueue", pushQueue}, {"retryAfter", Value()}, {"inFlight", inFlight}});
  }

  const std::regex kLocalUrl{"http://127\\.0\\.0\\.1:[0-9]+"};
  pnx::testing::TempDir dir_;
  PnxServe serve_{{"--media", PNX_SOURCE_DIR "/examples/media"}};
};

TEST_F(PnxDeliveryCommands, DeliverTakesAPushTheWholeRoadAndRefusesBadInputInOneLine) {
  // An action that cannot be encoded stops the extension until its time budget ends (what
  // it leaves is the service's tests' to check).
  EXPECT_EQ(json({"deliver", "-", "--time-budget", "0.3"},
                 payload("bad-action-not-encodable.json"))["expired"],
            Value(true));

  PnxRun run = pnx({"deliver", "-", "--id", "IMG-1"}, payload("image.json"));
  Value result = expectPnxJSON(run);
  EXPECT_EQ(result["extension"], Value(true));
  EXPECT_EQ(result["expired"], Value(false));
  ASSERT_EQ(result["handBacks"].size(), 2u);
  const Value& first = result["handBacks"].asArray()->at(0);
  EXPECT_EQ(first["identifier"], Value("IMG-1"));
  EXPECT_EQ(first["title"], Value("New arrivals"));
  EXPECT_EQ(first["categoryIdentifier"], Value("new-arrivals"));
  EXPECT_EQ(first["userInfo"]["aps"]["category"], Value("new-arrivals"));
  ASSERT_EQ(first["attachments"].size(), 1u);
  EXPECT_EQ(first["attachments"].asArray()->at(0)["type"], Value("public.png"));
  const std::string path = *result["displayed"]["attachments"].asArray()->at(0)["url"].asString();
  EXPECT_NE(path.find("/notifications/com.example.sampleapp/attachments/sample.png"),
            std::string::npos)
      << path;
  EXPECT_TRUE(std::filesystem::exists(path.substr(std::string("file://").size())));
  EXPECT_NE(run.err.find("New arrivals"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("[ Ask a question … ]"), std::string::npos) << run.err;

  // Another process sees the category and an empty delivery queue: the report went out.
  Value categories = json({"categories"})["categories"];
  ASSERT_EQ(categories.size(), 1u);
  EXPECT_EQ(categories.asArray()->at(0)["actions"].size(), 4u);
  EXPECT_EQ(json({"queue"})["pushQueue"], Value(pnx::Array()));
  auto reports = serve_.client().Get("/_pnx/reports");
  ASSERT_TRUE(reports);
  EXPECT_NE(reports->body.find("arrivals"), std::string::npos) << reports->body;

  for (const char* input : {"[1, 2]", "{\"aps\": ", "\"text\""}) {
    expectPnxFailure(pnx({"deliver", "-"}, input), 1);
  }
  expectPnxFailure(pnx({"deliver", dir_.file("nothing-here.json")}), 1, "nothing-here.json");
  expectPnxFailure(pnx({"deliver", "-", "--time-budget", "-1"}, "{}"), 2);
  expectPnxFailure(pnx({"deliver", dir_.file("bundle")}), 1, "is a directory");
  // The configuration's exception ends the run in one line, not an abort.
  dir_.write("bundle/PnxConfig.json", "{not JSON");
  expectPnxFailure(pnx({"deliver", "-"}, payload("plain.json")), 1, "Invalid Config File");
}

TEST_F(PnxDeliveryCommands, QueueShowsWhatFailedOrIsInFlightAndResendSendsIt) {
  setFaults(R"(["status=500,times=1"])");
  ASSERT_EQ(pnx({"_report", "--prefix", "p", "--count", "1"}).exitCode, 0);
  EXPECT_EQ(json({"queue"}), queue(Value::array({record("p-0")})));

  // A failing resend exits 1 with the error in its JSON and one line that names it.
  setFaults(R"(["status=503"])");
  PnxRun refused = pnx({"resend"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(pnx::JSON::parse(refused.out).value()["error"]["code"], pnx::Value(105));
  EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  EXPECT_NE(refused.err.find("HTTP connection to PNX server failed"), std::string::npos);

  // A process killed during its request leaves its records in flight for the next one.
  setFaults(R"(["delay=30,times=1"])");
  PnxProcess reporter(withDevice({"_report", "--prefix", "k", "--count", "1"}));
  // The send records its records in flight, then empties the queue: wait for both.
  Value shown;
  for (int i = 0; i < 500 && (shown["inFlight"].size() == 0 || shown["pushQueue"].size() != 0);
       ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    shown = json({"queue"});
  }
  ASSERT_EQ(shown, queue(Value(pnx::Array()), Value::array({record("k-0"), record("p-0")})));
  reporter.stop(SIGKILL);
  EXPECT_EQ(json({"resend"}),
            Value::dict({{"sent", 2}, {"error", Value()}, {"retryAfter", Value()}}));
  EXPECT_EQ(json({"queue"}), queue(Value(pnx::Array())));
  EXPECT_EQ(pnx::JSON::parse(serve_.client().Get("/_pnx/reports")->body)->size(), 1u);
  // Nothing left: resending sends nothing and succeeds.
  EXPECT_EQ(json({"resend"})["sent"], Value(0));

  // A back-off holds resends, and both commands show its date.
  setFaults(R"(["status=429,retry-after=120"])");
  ASSERT_EQ(pnx({"_report", "--prefix", "b", "--count", "1"}).exitCode, 0);
  Value held = json({"queue"});
  ASSERT_TRUE(held["retryAfter"].isString());
  EXPECT_EQ(json({"resend"}),
            Value::dict({{"sent", 0}, {"error", Value()}, {"retryAfter", held["retryAfter"]}}));
  EXPECT_EQ(json({"queue"})["pushQueue"], Value::array({record("b-0")}));

  // A keychain that cannot be read is no empty queue, and is named with its status.
  dir_.write("device/keychain.db", std::string(4096, 'x'));
  for (const char* command : {"queue", "resend"}) {
    PnxRun broken = pnx({command});
    EXPECT_EQ(broken.exitCode, 1) << command;
    EXPECT_NE(broken.err.find("pushQueue"), std::string::npos) << command << broken.err;
  }
  EXPECT_NE(pnx({"queue"}).err.find("(errSecInteractionNotAllowed (-25308)"), std::string::npos);
}

}  // namespace
