// pnx serve as a process: it is started with --port 0, its first line gives the port, and
// the tests talk HTTP (and HTTPS) to it and read the line it prints for every request.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "codecs/gzip.h"
#include "tools/pnx/run_pnx_test.h"

namespace {

using Clock = std::chrono::steady_clock;

// A running `pnx serve --port 0 ...`, killed at the end of the test whatever happens.
class ServeProcess {
 public:
  explicit ServeProcess(std::vector<std::string> arguments) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    out_ = fds[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, io_.file("stderr").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<std::string> argv = {PNX_BINARY, "--device", io_.file("device"),
                                     "serve",    "--port",   "0"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = pnx_test_detail::childEnvironment({});
    auto argvPointers = pnx_test_detail::pointers(argv);
    auto envPointers = pnx_test_detail::pointers(environment);
    const int spawned =
        posix_spawn(&pid_, PNX_BINARY, &actions, nullptr, argvPointers.data(), envPointers.data());
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (spawned != 0) throw std::runtime_error("cannot start " PNX_BINARY);

    auto first = nextLine();
    if (!first || !first->isDictionary()) return;
    if (const std::string* url = (*first)["listening"].asString()) {
      url_ = *url;
      port_ = std::atoi(url_.substr(url_.rfind(':') + 1).c_str());
    }
  }

  ~ServeProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(out_);
  }

  const std::string& url() const { return url_; }
  int port() const { return port_; }
  std::string err() const { return pnx_test_detail::readWholeFile(io_.file("stderr")); }

  httplib::Client client() const {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(10, 0);
    return client;
  }

  // The next line on stdout as JSON; nullopt when none comes within the time or it is not
  // JSON.
  std::optional<pnx::Value> nextLine(double timeoutSeconds = 10) {
    const auto deadline = Clock::now() + std::chrono::duration<double>(timeoutSeconds);
    while (true) {
      const std::size_t newline = buffered_.find('\n');
      if (newline != std::string::npos) {
        std::string line = buffered_.substr(0, newline);
        buffered_.erase(0, newline + 1);
        return pnx::JSON::parse(line);
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) return std::nullopt;
      pollfd ready{out_, POLLIN, 0};
      if (poll(&ready, 1, static_cast<int>(left)) <= 0) continue;
      char chunk[4096];
      const ssize_t count = read(out_, chunk, sizeof chunk);
      if (count <= 0) return std::nullopt;
      buffered_.append(chunk, static_cast<std::size_t>(count));
    }
  }

  // Sends `signal` and returns the exit code (128 + signal when it did not exit by itself).
  int stop(int signal = SIGTERM) {
    kill(pid_, signal);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pnx::testing::TempDir io_;
  pid_t pid_ = -1;
  int out_ = -1;
  std::string buffered_;
  std::string url_;
  int port_ = 0;
};

std::string gzip(std::string_view text) {
  auto compressed = gzippedData(pnx::Data(text.begin(), text.end()));
  return std::string(compressed->begin(), compressed->end());
}

const httplib::Headers kGzip = {{"Content-Encoding", "gzip"}};
constexpr const char* kDeliveryPath = "/3.0/apps/ap12345678/delivery";
const std::string kReport = R"({"delivery":[{"userId":"u1","channelId":"c1","mailingId":7}]})";

httplib::Result postReport(httplib::Client& client, const std::string& json = kReport) {
  return client.Post(kDeliveryPath, kGzip, gzip(json), "application/json");
}

TEST(ServeCommand, AcceptsReportsPrintsThemAndListsThem) {
  ServeProcess serve({});
  ASSERT_EQ(serve.url(), "http://127.0.0.1:" + std::to_string(serve.port())) << serve.err();
  auto client = serve.client();

  auto answer = client.Post(kDeliveryPath, {{"Content-Encoding", "gzip"}}, gzip(kReport),
                            "application/json; charset=utf-8");
  ASSERT_TRUE(answer) << httplib::to_string(answer.error());
  EXPECT_EQ(answer->status, 200);

  auto line = serve.nextLine();
  ASSERT_TRUE(line);
  EXPECT_EQ((*line)["appKey"], pnx::Value("ap12345678"));
  EXPECT_EQ((*line)["records"], pnx::Value(pnx::Array{pnx::Value::dict(
                                    {{"userId", "u1"}, {"channelId", "c1"}, {"mailingId", 7}})}));
  EXPECT_EQ((*line)["bytes"]["gzip"], pnx::Value(gzip(kReport).size()));
  EXPECT_EQ((*line)["bytes"]["json"], pnx::Value(kReport.size()));
  ASSERT_TRUE((*line)["time"].isString());
  EXPECT_TRUE(pnx::Date::fromISO8601(*(*line)["time"].asString()));
  EXPECT_EQ(line->size(), 4u);

  auto reports = client.Get("/_pnx/reports");
  ASSERT_TRUE(reports);
  EXPECT_EQ(reports->status, 200);
  EXPECT_EQ(pnx::JSON::parse(reports->body), pnx::Value(pnx::Array{*line}));
  auto reportsLine = serve.nextLine();
  ASSERT_TRUE(reportsLine);
  EXPECT_EQ((*reportsLine)["path"], pnx::Value("/_pnx/reports"));
  EXPECT_EQ((*reportsLine)["status"], pnx::Value(200));
}

TEST(ServeCommand, RefusesWhatIsNotADeliveryReport) {
  ServeProcess serve({});
  auto client = serve.client();
  struct Case {
    const char* name;
    httplib::Headers headers;
    std::string body;
    const char* contentType;
    int status;
    const char* mentions;
  };
  const Case cases[] = {
      {"not gzip", {}, kReport, "application/json", 400, "Content-Encoding is missing"},
      {"body not gzip", kGzip, kReport, "application/json", 400, "not gzip data"},
      {"not JSON", kGzip, gzip("delivery"), "application/json", 400, "not JSON"},
      {"no delivery", kGzip, gzip("{}"), "application/json", 400, "no \"delivery\""},
      {"not an array", kGzip, gzip(R"({"delivery":"x"})"), "application/json", 400, "not an array"},
      {"wrong type", kGzip, gzip(kReport), "text/plain", 400, "not application/json"},
      {"over the cap", kGzip, gzip(std::string(17 * 1024 * 1024, ' ')), "application/json", 413,
       "decompresses to more than"},
  };
  for (const auto& c : cases) {
    auto answer = client.Post(kDeliveryPath, c.headers, c.body, c.contentType);
    ASSERT_TRUE(answer) << c.name;
    EXPECT_EQ(answer->status, c.status) << c.name;
    auto body = pnx::JSON::parse(answer->body);
    ASSERT_TRUE(body && body->isDictionary()) << c.name;
    ASSERT_TRUE((*body)["error"].isString()) << c.name;
    EXPECT_NE((*body)["error"].asString()->find(c.mentions), std::string::npos)
        << c.name << ": " << answer->body;
    auto line = serve.nextLine();
    ASSERT_TRUE(line) << c.name;
    EXPECT_EQ((*line)["status"], pnx::Value(c.status)) << c.name;
    EXPECT_EQ((*line)["method"], pnx::Value("POST")) << c.name;
    EXPECT_EQ((*line)["path"], pnx::Value(kDeliveryPath)) << c.name;
    ASSERT_TRUE((*line)["error"].isString()) << c.name;
    EXPECT_NE((*line)["error"].asString()->find(c.mentions), std::string::npos) << c.name;
  }

  auto get = client.Get(kDeliveryPath);
  ASSERT_TRUE(get);
  EXPECT_EQ(get->status, 405);
  EXPECT_EQ(get->get_header_value("Allow"), "POST");
  auto put = client.Put(kDeliveryPath, gzip(kReport), "application/json");
  ASSERT_TRUE(put);
  EXPECT_EQ(put->status, 405);
  auto postMedia = client.Post("/media/a.png", "x", "text/plain");
  ASSERT_TRUE(postMedia);
  EXPECT_EQ(postMedia->status, 405);
  for (const char* path : {"/", "/3.0/apps/ap12345678/delivery/", "/3.0/apps/x", "/_pnx"}) {
    auto answer = client.Post(path, kGzip, gzip(kReport), "application/json");
    ASSERT_TRUE(answer) << path;
    EXPECT_EQ(answer->status, 404) << path;
  }

  // Nothing refused was recorded, and the server still works after all of it.
  auto reports = client.Get("/_pnx/reports");
  ASSERT_TRUE(reports);
  EXPECT_EQ(reports->body, "[]");
  EXPECT_EQ(serve.stop(), 0) << serve.err();
}

TEST(ServeCommand, FaultsApplyForTheirTimesThenAnswersAreNormal) {
  ServeProcess serve(
      {"--fault", "status=429,retry-after=30,times=2", "--fault", "status=500,times=1"});
  auto client = serve.client();
  for (int expected : {429, 429, 500, 200}) {
    auto answer = postReport(client);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, expected);
    EXPECT_EQ(answer->get_header_value("Retry-After"), expected == 429 ? "30" : "");
    auto line = serve.nextLine();
    ASSERT_TRUE(line);
    if (expected != 200) {
      EXPECT_EQ((*line)["status"], pnx::Value(expected));
      EXPECT_TRUE((*line)["fault"].isString());
    } else {
      EXPECT_EQ((*line)["appKey"], pnx::Value("ap12345678"));
    }
  }
  // Faults concern the backend's endpoint only; the control endpoints always answer.
  auto reports = client.Get("/_pnx/reports");
  ASSERT_TRUE(reports);
  EXPECT_EQ(pnx::JSON::parse(reports->body)->size(), 1u);
}

TEST(ServeCommand, DelayAndDropFaults) {
  ServeProcess serve({"--fault", "status=503,delay=0.4,times=1", "--fault", "drop,times=1"});
  auto client = serve.client();

  const auto start = Clock::now();
  auto delayed = postReport(client);
  ASSERT_TRUE(delayed);
  EXPECT_EQ(delayed->status, 503);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(400));
  serve.nextLine();

  auto dropped = postReport(client);
  EXPECT_FALSE(dropped);  // the connection closed without any answer
  auto line = serve.nextLine();
  ASSERT_TRUE(line);
  EXPECT_TRUE((*line)["status"].isNull());
  EXPECT_EQ((*line)["fault"], pnx::Value("drop,times=1"));

  auto normal = postReport(client);
  ASSERT_TRUE(normal);
  EXPECT_EQ(normal->status, 200);
}

TEST(ServeCommand, FaultsAreReplacedAtRunTime) {
  ServeProcess serve({"--fault", "status=500"});
  auto client = serve.client();
  EXPECT_EQ(postReport(client)->status, 500);

  auto replaced =
      client.Post("/_pnx/faults", R"(["status=429,retry-after=5,times=1"])", "application/json");
  ASSERT_TRUE(replaced);
  EXPECT_EQ(replaced->status, 200);
  EXPECT_EQ(pnx::JSON::parse(replaced->body),
            pnx::Value(pnx::Array{pnx::Value::dict(
                {{"fault", "status=429,retry-after=5,times=1"}, {"remaining", 1}})}));

  auto bad = client.Post("/_pnx/faults", R"(["status=abc"])", "application/json");
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 400);
  EXPECT_NE(bad->body.find("status must be"), std::string::npos) << bad->body;

  // The bad list changed nothing: one 429, then normal answers.
  auto limited = postReport(client);
  EXPECT_EQ(limited->status, 429);
  EXPECT_EQ(limited->get_header_value("Retry-After"), "5");
  EXPECT_EQ(postReport(client)->status, 200);

  ASSERT_EQ(client.Post("/_pnx/faults", "[]", "application/json")->status, 200);
  EXPECT_EQ(client.Get("/_pnx/faults")->body, "[]");
}

TEST(ServeCommand, BadOptionsAreUsageErrors) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"serve", "--fault", "status=abc"},
        std::vector<std::string>{"serve", "--fault", "times=2"},
        std::vector<std::string>{"serve", "--media", "/nonexistent/media"},
        std::vector<std::string>{"serve", "--port", "70000"}}) {
    PnxRun run = runPnx(arguments);
    EXPECT_EQ(run.exitCode, 2) << arguments.back() << ": " << run.err;
    EXPECT_EQ(run.errLines().size(), 1u) << run.err;
    EXPECT_TRUE(run.out.empty());
  }
}

TEST(ServeCommand, ServesMediaWithTypesAndLengthAndNothingOutside) {
  pnx::testing::TempDir dir;
  const std::string secret = dir.write("secret.txt", "secret");
  dir.write("media/picture.png", "png");
  dir.write("media/sound.aiff", "aiff");
  dir.write("media/clip.avi", "avi");
  dir.write("media/data.bin", "bin");
  ASSERT_EQ(symlink(secret.c_str(), dir.file("media/link.png").c_str()), 0);
  // Large enough to need many chunks of the streaming reader.
  std::string large(5 * 1024 * 1024 + 17, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7);
  dir.write("media/large.mp4", large);

  ServeProcess serve({"--media", dir.file("media")});
  auto client = serve.client();
  const std::pair<const char*, const char*> types[] = {{"picture.png", "image/png"},
                                                       {"sound.aiff", "audio/aiff"},
                                                       {"clip.avi", "video/x-msvideo"},
                                                       {"data.bin", "application/octet-stream"}};
  for (const auto& [name, type] : types) {
    auto answer = client.Get(std::string("/media/") + name);
    ASSERT_TRUE(answer) << name;
    EXPECT_EQ(answer->status, 200) << name;
    EXPECT_EQ(answer->get_header_value("Content-Type"), type) << name;
  }
  auto big = client.Get("/media/large.mp4");
  ASSERT_TRUE(big);
  EXPECT_EQ(big->get_header_value("Content-Length"), std::to_string(large.size()));
  EXPECT_TRUE(big->body == large);
  auto part = client.Get("/media/large.mp4", {{"Range", "bytes=10-19"}});
  ASSERT_TRUE(part);
  EXPECT_EQ(part->status, 206);
  EXPECT_EQ(part->body, large.substr(10, 10));

  for (const char* path :
       {"/media/link.png", "/media/../secret.txt", "/media/..%2Fsecret.txt",
        "/media/%2e%2e/secret.txt", "/media/%2E%2E%2Fsecret.txt", "/media//etc/passwd",
        "/media/%2Fetc%2Fpasswd", "/media/missing.png", "/media/"}) {
    auto answer = client.Get(path);
    ASSERT_TRUE(answer) << path;
    EXPECT_EQ(answer->status, 404) << path;
    EXPECT_EQ(answer->body.find("secret"), std::string::npos) << path;
  }
}

TEST(ServeCommand, ServesHTTPSWithTheGivenCertificate) {
  pnx::testing::TempDir dir;
  const std::string cert = dir.file("cert.pem"), key = dir.file("key.pem");
  const std::string command =
      "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
      "-addext subjectAltName=IP:127.0.0.1 -keyout '" +
      key + "' -out '" + cert + "' 2>/dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0);

  ServeProcess serve({"--tls", cert, key});
  ASSERT_EQ(serve.url(), "https://127.0.0.1:" + std::to_string(serve.port())) << serve.err();

  httplib::SSLClient trusting("127.0.0.1", serve.port());
  trusting.set_ca_cert_path(cert.c_str());
  trusting.enable_server_certificate_verification(true);
  auto answer = trusting.Post(kDeliveryPath, kGzip, gzip(kReport), "application/json");
  ASSERT_TRUE(answer) << httplib::to_string(answer.error());
  EXPECT_EQ(answer->status, 200);

  // Certificate checking is real: a client that does not trust the certificate refuses.
  httplib::SSLClient untrusting("127.0.0.1", serve.port());
  untrusting.enable_server_certificate_verification(true);
  auto refused = untrusting.Get("/_pnx/reports");
  EXPECT_FALSE(refused);
  EXPECT_EQ(refused.error(), httplib::Error::SSLServerVerification);

  PnxRun missing = runPnx({"serve", "--tls", dir.file("none.pem"), key});
  EXPECT_EQ(missing.exitCode, 1) << missing.err;
}

TEST(ServeCommand, StopsCleanlyOnSIGTERMAndSIGINT) {
  for (int signal : {SIGTERM, SIGINT}) {
    ServeProcess serve({"--fault", "status=503,delay=30"});
    ASSERT_GT(serve.port(), 0);
    // A request stalled in a long delay does not hold the stop back.
    std::thread stalled([port = serve.port()] {
      httplib::Client client("127.0.0.1", port);
      postReport(client);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto start = Clock::now();
    EXPECT_EQ(serve.stop(signal), 0) << serve.err();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
    stalled.join();
  }
}

}  // namespace
