// pnx deliver as a process: the whole road of a push against `pnx serve` as another process
// (media and delivery reports), what a later process sees of it, the payloads that never
// start the extension, the expiry, and bad input.

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
using pnx::Value;

// `pnx serve --media examples/media` in the background, killed at the end.
class Server {
 public:
  explicit Server(const std::string& out) {
    std::vector<std::string> arguments = {
        PNX_BINARY, "--device", out + ".device", "serve",
        "--port",   "0",        "--media",       PNX_SOURCE_DIR "/examples/media"};
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
    std::smatch match;
    for (int i = 0; i < 500 && pid_ > 0; ++i) {
      std::string first = pnx_test_detail::readWholeFile(out);
      if (std::regex_search(first, match, std::regex("http://127\\.0\\.0\\.1:[0-9]+"))) {
        url_ = match[0];
        break;
      }
      std::this_thread::sleep_for(10ms);
    }
  }
  ~Server() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  const std::string& url() const { return url_; }

 private:
  pid_t pid_ = -1;
  std::string url_;
};

class DeliverCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(server_.url().empty()) << "pnx serve did not start";
    std::filesystem::copy(pnxSampleBundle(), dir_.file("bundle"));
    std::string config = dir_.read("bundle/PnxConfig.json");
    dir_.write(
        "bundle/PnxConfig.json",
        std::regex_replace(config, std::regex("http://127\\.0\\.0\\.1:[0-9]+"), server_.url()));
    ASSERT_EQ(pnx({"identity", "--user-id", "u1", "--channel-id", "c1"}).exitCode, 0);
  }

  // An example payload with its media URL pointing at the server.
  std::string payload(const std::string& name) {
    std::string text = pnx_test_detail::readWholeFile(PNX_SOURCE_DIR "/examples/payloads/" + name);
    return std::regex_replace(text, std::regex("http://127\\.0\\.0\\.1:8765"), server_.url());
  }
  PnxRun pnx(std::vector<std::string> arguments, const std::string& input = {}) {
    arguments.insert(arguments.begin(),
                     {"--device", dir_.file("device"), "--bundle", dir_.file("bundle")});
    PnxRunOptions options;
    options.input = input;
    return runPnx(std::move(arguments), options);
  }
  Value deliver(const std::string& payloadName, std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments = {"deliver", "-"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    PnxRun run = pnx(arguments, payload(payloadName));
    EXPECT_EQ(run.exitCode, 0) << run.err;
    lastErr_ = run.err;
    auto value = run.json();
    EXPECT_TRUE(value) << run.out << run.err;
    return value.value_or(Value());
  }

  pnx::testing::TempDir dir_;
  Server server_{dir_.file("serve.out")};
  std::string lastErr_;
};

TEST_F(DeliverCommand, TheWholeRoadWithActionsMediaAndReporting) {
  Value result = deliver("image.json", {"--id", "IMG-1"});
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

  const Value& shown = result["displayed"]["attachments"].asArray()->at(0);
  const std::string path = *shown["url"].asString();
  EXPECT_NE(path.find("/notifications/com.example.sampleapp/attachments/sample.png"),
            std::string::npos)
      << path;
  EXPECT_TRUE(std::filesystem::exists(path.substr(std::string("file://").size())));
  EXPECT_NE(lastErr_.find("New arrivals"), std::string::npos) << lastErr_;
  EXPECT_NE(lastErr_.find("[ Ask a question … ]"), std::string::npos) << lastErr_;

  // Another process sees the category and an empty delivery queue: the report went out.
  auto categories = pnx({"categories"}).json().value_or(Value());
  ASSERT_EQ(categories["categories"].size(), 1u);
  EXPECT_EQ(categories["categories"].asArray()->at(0)["actions"].size(), 4u);
  auto queue = pnx({"queue"}).json().value_or(Value());
  EXPECT_EQ(queue["pushQueue"], Value(pnx::Array()));
  httplib::Client client(server_.url());
  auto reports = client.Get("/_pnx/reports");
  ASSERT_TRUE(reports);
  EXPECT_NE(reports->body.find("arrivals"), std::string::npos) << reports->body;

  // The same file name in a later process: the first file left the temporary directory when
  // it was shown, so this copy succeeds too, and the store keeps both.
  Value again = deliver("image.json");
  ASSERT_EQ(again["displayed"]["attachments"].size(), 1u);
  const std::string secondPath =
      *again["displayed"]["attachments"].asArray()->at(0)["url"].asString();
  EXPECT_NE(secondPath, path);
  EXPECT_TRUE(std::filesystem::exists(path.substr(std::string("file://").size())));
}

TEST_F(DeliverCommand, WithoutMutableContentTheNotificationIsShownAsItArrived) {
  Value result = deliver("not-mutable.json");
  EXPECT_EQ(result["extension"], Value(false));
  EXPECT_EQ(result["handBacks"], Value(pnx::Array()));
  EXPECT_EQ(result["displayed"]["title"], Value("Plain push"));
  EXPECT_EQ(result["displayed"]["attachments"], Value(pnx::Array()));
  EXPECT_EQ(pnx({"categories"}).json().value_or(Value())["categories"], Value(pnx::Array()));
}

TEST_F(DeliverCommand, AnUnencodableActionEndsOnlyWithTheExpiry) {
  Value result = deliver("bad-action-not-encodable.json", {"--time-budget", "0.3"});
  EXPECT_EQ(result["expired"], Value(true));
  ASSERT_EQ(result["handBacks"].size(), 1u);
  EXPECT_EQ(pnx({"categories"}).json().value_or(Value())["categories"], Value(pnx::Array()));
}

TEST_F(DeliverCommand, MediaThatIsNeverFetched) {
  for (const char* name : {"bad-media-not-a-url.json", "bad-media-file-url.json",
                           "bad-media-escape.json", "watch.json"}) {
    Value result = deliver(name, {"--time-budget", "10"});
    EXPECT_EQ(result["expired"], Value(false)) << name;
    EXPECT_GE(result["handBacks"].size(), 1u) << name;
    EXPECT_EQ(result["displayed"]["attachments"], Value(pnx::Array())) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(dir_.file("device/containers/escape.png")));
}

TEST_F(DeliverCommand, BadInputIsOneLineAndExitOne) {
  for (const std::string& input :
       {std::string("[1, 2]"), std::string("{\"aps\": "), std::string("\"text\"")}) {
    PnxRun run = pnx({"deliver", "-"}, input);
    EXPECT_EQ(run.exitCode, 1) << input;
    EXPECT_EQ(run.errLines().size(), 1u) << run.err;
    EXPECT_TRUE(run.out.empty());
  }
  PnxRun missing = pnx({"deliver", dir_.file("nothing-here.json")});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.err.find("nothing-here.json"), std::string::npos);
  EXPECT_EQ(pnx({"deliver", "-", "--time-budget", "-1"}, "{}").exitCode, 2);
  EXPECT_EQ(pnx({"deliver"}).exitCode, 2);
}

TEST_F(DeliverCommand, APayloadPathThatIsADirectoryIsNamedAsOne) {
  PnxRun run = pnx({"deliver", dir_.file("bundle")});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.errLines().size(), 1u) << run.err;
  EXPECT_NE(run.err.find("is a directory"), std::string::npos) << run.err;
}

TEST_F(DeliverCommand, AConfigurationThatIsNotJSONIsOneLineAndExitOne) {
  dir_.write("bundle/PnxConfig.json", "{not JSON");
  PnxRun run = pnx({"deliver", "-"}, payload("plain.json"));
  EXPECT_EQ(run.exitCode, 1) << run.err;
  EXPECT_EQ(run.errLines().size(), 1u) << run.err;
  EXPECT_NE(run.err.find("Invalid Config File"), std::string::npos) << run.err;
}

}  // namespace
