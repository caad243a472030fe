// pnx serve on --port 0: the tests talk HTTP(S) to it and read the line it prints per request.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "codecs/gzip.h"
#include "tools/pnx/run_pnx_test.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string gzip(std::string_view text) {
  auto compressed = gzippedData(pnx::Data(text.begin(), text.end()));
  return std::string(compressed->begin(), compressed->end());
}

const httplib::Headers kGzip = {{"Content-Encoding", "gzip"}};
constexpr const char* kDeliveryPath = "/3.0/apps/ap12345678/delivery";
const std::string kReport = R"({"delivery":[{"userId":"u1","channelId":"c1","mailingId":7}]})";

template <typename Client>
httplib::Result postReport(Client& client) {
  return client.Post(kDeliveryPath, kGzip, gzip(kReport), "application/json");
}

void expectMentions(const pnx::Value& error, std::string_view mentions) {
  ASSERT_TRUE(error.isString()) << mentions;
  EXPECT_NE(error.asString()->find(mentions), std::string::npos) << *error.asString();
}

TEST(ServeCommand, AcceptsReportsPrintsAndListsThemAndRefusesWhatIsNotOne) {
  PnxServe serve;
  ASSERT_EQ(serve.url(), "http://127.0.0.1:" + std::to_string(serve.port())) << serve.err();
  auto client = serve.client();

  auto answer = client.Post(kDeliveryPath, kGzip, gzip(kReport), "application/json; charset=utf-8");
  ASSERT_TRUE(answer) << httplib::to_string(answer.error());
  EXPECT_EQ(answer->status, 200);
  const pnx::Value line = serve.nextLine().value_or(pnx::Value());
  EXPECT_TRUE(line["time"].isString() && pnx::Date::fromISO8601(*line["time"].asString()));
  EXPECT_EQ(line, pnx::Value::dict({{"appKey", "ap12345678"},
                                    {"records", pnx::JSON::parse(kReport).value()["delivery"]},
                                    {"bytes", pnx::Value::dict({{"gzip", gzip(kReport).size()},
                                                                {"json", kReport.size()}})},
                                    {"time", line["time"]}}));

  // Refusals are answered and printed with the reason (the checks' cases are tested apart).
  const std::tuple<const char*, std::string, int, const char*, const char*> refused[] = {
      {kDeliveryPath, gzip(std::string(17 << 20, ' ')), 413, "decompresses to more than", ""},
      {"/_pnx/reports", gzip(kReport), 405, "POST is not allowed here", "GET, HEAD"},
      {"/3.0/apps/ap12345678/delivery/", gzip(kReport), 404, "no such endpoint", ""},
  };
  for (const auto& [path, body, status, mentions, allow] : refused) {
    SCOPED_TRACE(mentions);
    auto answer = client.Post(path, kGzip, body, "application/json");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, status);
    EXPECT_EQ(answer->get_header_value("Allow"), allow);
    expectMentions(pnx::JSON::parse(answer->body).value_or(pnx::Value())["error"], mentions);
    const pnx::Value printed = serve.nextLine().value_or(pnx::Value());
    EXPECT_EQ(std::tuple(printed["status"], printed["method"], printed["path"]),
              std::tuple(pnx::Value(status), pnx::Value("POST"), pnx::Value(path)));
    expectMentions(printed["error"], mentions);
  }

  client.set_keep_alive(true);
  const httplib::Headers acceptGzip{{"Accept-Encoding", "gzip"}};
  auto reports = client.Get("/_pnx/reports", acceptGzip);
  ASSERT_TRUE(reports);
  EXPECT_EQ(pnx::JSON::parse(reports->body), pnx::Value(pnx::Array{line}));
  const pnx::Value reportsLine = serve.nextLine().value_or(pnx::Value());
  EXPECT_EQ(reportsLine["path"], pnx::Value("/_pnx/reports"));
  EXPECT_EQ(reportsLine["status"], pnx::Value(200));

  // Answers on a kept-alive connection come at once: the body of a compressed answer,
  // written after its head, must not wait for the client's delayed ACK (40 ms each time).
  const auto start = Clock::now();
  for (int i = 0; i < 40; ++i) ASSERT_TRUE(client.Get("/_pnx/reports", acceptGzip));
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(600));
}

TEST(ServeCommand, FaultsApplyInOrderForTheirTimesAndAreReplacedAtRunTime) {
  PnxServe serve({"--fault", "status=429,retry-after=30,times=1", "--fault", "drop,times=1"});
  auto client = serve.client();
  auto limited = postReport(client);
  ASSERT_TRUE(limited);
  EXPECT_EQ(limited->status, 429);
  EXPECT_EQ(limited->get_header_value("Retry-After"), "30");
  const pnx::Value line = serve.nextLine().value_or(pnx::Value());
  EXPECT_EQ(line["status"], pnx::Value(429));
  EXPECT_EQ(line["fault"], pnx::Value("status=429,retry-after=30,times=1"));
  EXPECT_FALSE(postReport(client));  // the connection closed without any answer
  const pnx::Value dropped = serve.nextLine().value_or(pnx::Value());
  EXPECT_TRUE(dropped["status"].isNull());
  EXPECT_EQ(dropped["fault"], pnx::Value("drop,times=1"));
  EXPECT_EQ(postReport(client)->status, 200);

  auto replaced =
      client.Post("/_pnx/faults", R"(["status=503,delay=0.4,times=1"])", "application/json");
  ASSERT_TRUE(replaced);
  EXPECT_EQ(pnx::JSON::parse(replaced->body),
            pnx::JSON::parse(R"([{"fault": "status=503,delay=0.4,times=1", "remaining": 1}])"));
  auto bad = client.Post("/_pnx/faults", R"(["status=500", "status=abc"])", "application/json");
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 400);
  EXPECT_NE(bad->body.find("status must be"), std::string::npos) << bad->body;
  // The bad list changed nothing: one delayed 503, then normal answers.
  const auto start = Clock::now();
  auto unavailable = postReport(client);
  ASSERT_TRUE(unavailable);
  EXPECT_EQ(unavailable->status, 503);
  EXPECT_FALSE(unavailable->has_header("Retry-After"));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(400));
  EXPECT_EQ(postReport(client)->status, 200);

  // Faults concern the backend's endpoint only: the control endpoints answer at once.
  ASSERT_EQ(client.Post("/_pnx/faults", R"(["status=503,delay=30"])", "application/json")->status,
            200);
  EXPECT_EQ(pnx::JSON::parse(client.Get("/_pnx/reports")->body)->size(), 2u);
  // SIGINT stops the server as SIGTERM does, though a request stalls in the delay.
  std::thread stalled([port = serve.port()] {
    httplib::Client client("127.0.0.1", port);
    postReport(client);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto stopping = Clock::now();
  EXPECT_EQ(serve.stop(SIGINT), 0) << serve.err();
  EXPECT_LT(Clock::now() - stopping, std::chrono::seconds(10));
  stalled.join();
}

// A stop signal sent as soon as the first line is out used to be lost when the listener had
// not started yet, and the server ran on (5 runs in 10 hung).
TEST(ServeCommand, StopsOnASignalRightAfterItsFirstLineAndWithAnIdleClient) {
  for (int run = 0; run < 10; ++run) {
    pnx::testing::TempDir device;
    PnxProcess serve({"--device", device.path(), "serve", "--port", "0"});
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (serve.out().find('\n') == std::string::npos && Clock::now() < deadline) continue;
    EXPECT_EQ(serve.stop(SIGTERM), 0) << "run " << run << ": " << serve.err();
  }
  // A client that keeps its connection open and idle held the stop for 5 s.
  PnxServe serve;
  httplib::Client client = serve.client();
  client.set_keep_alive(true);
  ASSERT_EQ(client.Get("/_pnx/reports")->status, 200);
  const auto stopping = Clock::now();
  EXPECT_EQ(serve.stop(SIGTERM), 0);
  EXPECT_LT(Clock::now() - stopping, std::chrono::seconds(3));
}

TEST(ServeCommand, BadOptionsFailInOneLine) {
  const std::tuple<std::vector<std::string>, int, const char*> cases[] = {
      {{"serve", "--fault", "status=abc"}, 2, "status must be a number"},
      {{"serve", "--media", "/nonexistent/media"}, 2, "no media directory at '/nonexistent/media'"},
      {{"serve", "--port", "70000"}, 2, "--port"},
      {{"serve", "--tls", "/nonexistent/c.pem", "/nonexistent/k.pem"}, 1, "cannot use the TLS"},
  };
  for (const auto& [arguments, exitCode, mentions] : cases) {
    expectPnxFailure(runPnx(arguments), exitCode, mentions);
  }
}

TEST(ServeCommand, ServesMediaAndReportsOverHTTPSWithTheGivenCertificate) {
  pnx::testing::TempDir dir;
  const std::string cert = dir.file("cert.pem"), key = dir.file("key.pem");
  ASSERT_TRUE(pnx::testing::writeLocalCertificate(dir));
  const std::string secret = dir.write("secret.txt", "secret");
  dir.write("media/sound.aiff", "sound");
  ASSERT_EQ(symlink(secret.c_str(), dir.file("media/link.png").c_str()), 0);
  // Large enough to need many chunks of the streaming reader.
  std::string large(5 * 1024 * 1024 + 17, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7);
  dir.write("media/large.mp4", large);

  PnxServe serve({"--tls", cert, key, "--media", dir.file("media")});
  ASSERT_EQ(serve.url(), "https://127.0.0.1:" + std::to_string(serve.port())) << serve.err();
  httplib::SSLClient client("127.0.0.1", serve.port());
  client.set_ca_cert_path(cert.c_str());
  client.enable_server_certificate_verification(true);
  auto sound = client.Get("/media/sound.aiff");
  ASSERT_TRUE(sound) << httplib::to_string(sound.error());
  EXPECT_EQ(std::tuple(sound->status, sound->get_header_value("Content-Type"), sound->body),
            std::tuple(200, "audio/aiff", "sound"));
  auto big = client.Get("/media/large.mp4");
  ASSERT_TRUE(big);
  EXPECT_EQ(big->get_header_value("Content-Length"), std::to_string(large.size()));
  EXPECT_TRUE(big->body == large);
  auto part = client.Get("/media/large.mp4", {{"Range", "bytes=10-19"}});
  ASSERT_TRUE(part);
  EXPECT_EQ(std::pair(part->status, part->body), std::pair(206, large.substr(10, 10)));
  // A name the routing refuses, a file that opening refuses, and none at all.
  for (const char* path : {"/media/..%2Fsecret.txt", "/media/link.png", "/media/missing.png"}) {
    auto answer = client.Get(path);
    ASSERT_TRUE(answer) << path;
    EXPECT_EQ(answer->status, 404) << path;
    EXPECT_EQ(answer->body.find("secret"), std::string::npos) << path;
  }

  // A dropping fault closes the TLS connection without an answer too.
  ASSERT_EQ(client.Post("/_pnx/faults", R"(["drop,times=1"])", "application/json")->status, 200);
  EXPECT_FALSE(postReport(client));
  auto afterDrop = postReport(client);
  ASSERT_TRUE(afterDrop);
  EXPECT_EQ(afterDrop->status, 200);
}

}  // namespace
