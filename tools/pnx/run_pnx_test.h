// Test helpers that run the built pnx program (PNX_BINARY) as a child process, so that
// commands are tested the way people use them: one process per run, files on disk between
// runs. A child's output goes to files, so a chatty child never blocks on a full pipe, and
// $PNX_DEVICE and $PNX_BUNDLE are removed from its environment so that the developer's own
// settings never leak into a test.
//
//   PnxRunner pnx;                       // a fresh device directory, the sample bundle
//   PnxRun run = pnx.run({"config"});
//   EXPECT_EQ(run.exitCode, 0) << run.err;
//   PnxServe serve({"--fault", "status=500"});  // `pnx serve` in the background
//
// Thread-safety: none needed; use from the test's thread.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <httplib.h>

#include "platform/files/fixtures_test.h"
#include "platform/foundation/json.h"
#include "platform/foundation/value.h"

extern char** environ;

struct PnxRun {
  int exitCode = -1;  // the process's exit status, or 128 + signal when it was killed
  std::string out;    // everything written to stdout
  std::string err;    // everything written to stderr

  std::vector<std::string> errLines() const {
    std::vector<std::string> lines;
    std::istringstream stream(err);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
  }
  // stdout parsed as JSON (fragments allowed), nullopt when it is not JSON.
  std::optional<pnx::Value> json() const {
    pnx::JSONReadOptions options;
    options.allowFragments = true;
    return pnx::JSON::parse(out, nullptr, options);
  }
};

struct PnxRunOptions {
  std::string input;                     // fed to the child's stdin
  std::vector<std::string> environment;  // extra "NAME=value" entries for the child
};

namespace pnx_test_detail {

inline std::string readWholeFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

inline std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (auto& text : strings) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

// Starts `pnx arguments...` with its standard streams on the given files.
inline pid_t spawnPnx(std::vector<std::string> arguments, const std::string& in,
                      const std::string& out, const std::string& err,
                      const std::vector<std::string>& extraEnvironment = {}) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry; ++entry) {
    std::string_view text(*entry);
    if (!text.starts_with("PNX_DEVICE=") && !text.starts_with("PNX_BUNDLE=")) {
      environment.emplace_back(text);
    }
  }
  environment.insert(environment.end(), extraEnvironment.begin(), extraEnvironment.end());
  arguments.insert(arguments.begin(), PNX_BINARY);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> argv = pointers(arguments), envp = pointers(environment);
  pid_t pid = 0;
  const int spawnError = posix_spawn(&pid, PNX_BINARY, &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawnError != 0) throw std::runtime_error("cannot start " PNX_BINARY);
  return pid;
}

// Waits for the child to end: its exit status, or 128 + signal when a signal ended it.
inline int waitForExit(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace pnx_test_detail

// Runs `pnx arguments...` and waits for it to end.
inline PnxRun runPnx(std::vector<std::string> arguments, const PnxRunOptions& options = {}) {
  using namespace pnx_test_detail;
  pnx::testing::TempDir io;
  std::ofstream(io.file("stdin"), std::ios::binary) << options.input;
  const pid_t pid = spawnPnx(std::move(arguments), io.file("stdin"), io.file("stdout"),
                             io.file("stderr"), options.environment);
  PnxRun run;
  run.exitCode = waitForExit(pid);
  run.out = readWholeFile(io.file("stdout"));
  run.err = readWholeFile(io.file("stderr"));
  return run;
}

// pnx's failure contract: the exit code (1 failure, 2 usage error), nothing on stdout, and
// one line on stderr, "pnx: ...", that mentions `mentions`; a usage error points at --help.
inline void expectPnxFailure(const PnxRun& run, int exitCode, std::string_view mentions = {}) {
  EXPECT_EQ(run.exitCode, exitCode) << mentions << ": " << run.err;
  EXPECT_EQ(run.out, "") << mentions;
  EXPECT_EQ(run.errLines().size(), 1u) << mentions << ": " << run.err;
  EXPECT_TRUE(run.err.starts_with("pnx: ")) << run.err;
  EXPECT_NE(run.err.find(mentions), std::string::npos) << mentions << ": " << run.err;
  if (exitCode == 2) {
    EXPECT_TRUE(run.err.ends_with("; see pnx --help\n")) << run.err;
  }
}

// The sample bundle under examples/.
inline std::string pnxSampleBundle() {
  return PNX_SOURCE_DIR "/examples/SampleApp";
}

// Runs pnx against its own fresh device directory and a bundle (the sample bundle unless
// another is named; an empty name runs without a bundle).
class PnxRunner {
 public:
  explicit PnxRunner(std::string bundle = pnxSampleBundle()) : bundle_(std::move(bundle)) {}

  const std::string& device() const { return device_.path(); }

  PnxRun run(std::vector<std::string> arguments, const PnxRunOptions& options = {}) const {
    std::vector<std::string> full = {"--device", device()};
    if (!bundle_.empty()) full.insert(full.end(), {"--bundle", bundle_});
    full.insert(full.end(), arguments.begin(), arguments.end());
    return runPnx(std::move(full), options);
  }

 private:
  pnx::testing::TempDir device_;
  std::string bundle_;
};

// `pnx arguments...` in the background, killed at the end of the test whatever happens.
class PnxProcess {
 public:
  explicit PnxProcess(std::vector<std::string> arguments)
      : pid_(pnx_test_detail::spawnPnx(std::move(arguments), "/dev/null", io_.file("stdout"),
                                       io_.file("stderr"))) {}
  ~PnxProcess() {
    stop(SIGKILL);
    // Under the sanitizer presets the child is instrumented too; what it found is a failure.
    EXPECT_EQ(err().find("Sanitizer"), std::string::npos) << err();
  }

  std::string err() const { return pnx_test_detail::readWholeFile(io_.file("stderr")); }

  // The next line on stdout as JSON; nullopt when none comes in time or it is not JSON.
  std::optional<pnx::Value> nextLine() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      const std::string out = pnx_test_detail::readWholeFile(io_.file("stdout"));
      const std::size_t newline = out.find('\n', consumed_);
      if (newline != std::string::npos) {
        const std::size_t start = std::exchange(consumed_, newline + 1);
        return pnx::JSON::parse(std::string_view(out).substr(start, newline - start));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return std::nullopt;
  }

  // Sends `signal` and returns the exit code (128 + signal when it did not exit by itself).
  int stop(int signal = SIGTERM) {
    if (pid_ <= 0) return -1;
    kill(pid_, signal);
    return pnx_test_detail::waitForExit(std::exchange(pid_, -1));
  }

 private:
  pnx::testing::TempDir io_;
  pid_t pid_;
  std::size_t consumed_ = 0;
};

// A base of PnxServe, so that serve's device directory exists before the process starts.
struct PnxServeDevice {
  pnx::testing::TempDir device;
};

// `pnx serve --port 0 arguments...` on a device of its own; its first line gives the URL.
class PnxServe : private PnxServeDevice, public PnxProcess {
 public:
  explicit PnxServe(std::vector<std::string> arguments = {})
      : PnxProcess(withServe(device.path(), std::move(arguments))) {
    auto first = nextLine();
    if (const std::string* url = first ? (*first)["listening"].asString() : nullptr) {
      url_ = *url;
      port_ = std::atoi(url_.substr(url_.rfind(':') + 1).c_str());
    }
  }

  const std::string& url() const { return url_; }
  int port() const { return port_; }
  httplib::Client client() const {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(10, 0);
    return client;
  }

 private:
  static std::vector<std::string> withServe(const std::string& device,
                                            std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--device", device, "serve", "--port", "0"});
    return arguments;
  }

  std::string url_;
  int port_ = 0;
};
