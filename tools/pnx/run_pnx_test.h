// Runs the built pnx (PNX_BINARY) as child processes, as people use it. Output goes to files, so
// a chatty child never blocks on a full pipe; $PNX_DEVICE and $PNX_BUNDLE are kept from it, so
// the developer's own settings never leak into a test. Use from the test's thread.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
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
};

// `pnx arguments...` in the background with `input` on its stdin and `environment` ("NAME=
// value") added to its own; killed at the end of the test whatever happens.
class PnxProcess {
 public:
  explicit PnxProcess(std::vector<std::string> arguments, const std::string& input = {},
                      std::vector<std::string> environment = {}) {
    io_.write("stdin", input);
    arguments.insert(arguments.begin(), PNX_BINARY);
    // argv and envp point into `arguments`, `environ` and `environment`, ended by nullptr.
    std::vector<char*> argv, envp;
    for (auto& text : arguments) argv.push_back(text.data());
    for (char** entry = environ; *entry; ++entry) {
      const std::string_view text(*entry);
      if (!text.starts_with("PNX_DEVICE=") && !text.starts_with("PNX_BUNDLE=")) {
        envp.push_back(*entry);
      }
    }
    for (auto& text : environment) envp.push_back(text.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, io_.file("stdin").c_str(), O_RDONLY, 0);
    for (int fd : {1, 2}) {
      const std::string path = io_.file(fd == 1 ? "stdout" : "stderr");
      posix_spawn_file_actions_addopen(&actions, fd, path.c_str(), O_WRONLY | O_CREAT, 0600);
    }
    const int error = posix_spawn(&pid_, PNX_BINARY, &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " PNX_BINARY);
  }
  ~PnxProcess() {
    stop(SIGKILL);
    // Under the sanitizer presets the child is instrumented too; what it found is a failure.
    EXPECT_EQ(err().find("Sanitizer"), std::string::npos) << err();
  }

  std::string out() const { return io_.read("stdout"); }
  std::string err() const { return io_.read("stderr"); }

  // The next line on stdout as JSON; nullopt when none comes in time or it is not JSON.
  std::optional<pnx::Value> nextLine() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      const std::string text = out();
      const std::size_t newline = text.find('\n', consumed_);
      if (newline != std::string::npos) {
        const std::size_t start = std::exchange(consumed_, newline + 1);
        return pnx::JSON::parse(std::string_view(text).substr(start, newline - start));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return std::nullopt;
  }

  int wait() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) continue;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  // Sends `signal` and returns the exit code as wait() does. A process that outlives the signal
  // by 10 s is killed, so a hang fails its test (as 128 + SIGKILL) instead of stalling the run.
  int stop(int signal = SIGTERM) {
    if (pid_ <= 0) return -1;
    kill(pid_, signal);
    siginfo_t ended{};
    for (int tries = 0; tries < 2000 && ended.si_pid == 0; ++tries) {
      if (waitid(P_PID, pid_, &ended, WEXITED | WNOHANG | WNOWAIT) != 0) break;
      if (ended.si_pid == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (ended.si_pid == 0) kill(pid_, SIGKILL);
    return wait();
  }

 private:
  pnx::testing::TempDir io_;
  pid_t pid_ = -1;
  std::size_t consumed_ = 0;
};

inline PnxRun runPnx(std::vector<std::string> arguments, const std::string& input = {},
                     std::vector<std::string> environment = {}) {
  PnxProcess process(std::move(arguments), input, std::move(environment));
  return {process.wait(), process.out(), process.err()};  // in this order: braces sequence them
}

// What a run that must succeed printed: its stdout as JSON (fragments allowed), else null.
inline pnx::Value expectPnxJSON(const PnxRun& run) {
  EXPECT_EQ(run.exitCode, 0) << run.err;
  auto value = pnx::JSON::parse(run.out, nullptr, {.allowFragments = true});
  EXPECT_TRUE(value) << run.out << run.err;
  return value.value_or(pnx::Value());
}

// pnx's failure contract: the exit code (1 failure, 2 usage error), nothing on stdout, and
// one line on stderr, "pnx: ...", that mentions `mentions`; a usage error points at --help.
inline void expectPnxFailure(const PnxRun& run, int exitCode, std::string_view mentions = {}) {
  EXPECT_EQ(run.exitCode, exitCode) << mentions << ": " << run.err;
  EXPECT_EQ(run.out, "") << mentions;
  EXPECT_TRUE(run.err.starts_with("pnx: ") && run.err.ends_with("\n") &&
              std::count(run.err.begin(), run.err.end(), '\n') == 1)
      << run.err;
  EXPECT_NE(run.err.find(mentions), std::string::npos) << mentions << ": " << run.err;
  EXPECT_TRUE(exitCode != 2 || run.err.ends_with("; see pnx --help\n")) << run.err;
}

inline constexpr const char* kPnxSampleBundle = PNX_SOURCE_DIR "/examples/SampleApp";

// Runs pnx on a fresh device directory of its own and a bundle, the sample one by default.
class PnxRunner {
 public:
  explicit PnxRunner(std::string bundle = kPnxSampleBundle) : bundle_(std::move(bundle)) {}

  const pnx::testing::TempDir& device() const { return device_; }

  // `arguments` after the global options naming the device and the bundle.
  std::vector<std::string> arguments(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--device", device_.path(), "--bundle", bundle_});
    return arguments;
  }
  PnxRun run(std::vector<std::string> arguments, const std::string& input = {}) const {
    return runPnx(this->arguments(std::move(arguments)), input);
  }
  pnx::Value json(std::vector<std::string> arguments, const std::string& input = {}) const {
    return expectPnxJSON(run(std::move(arguments), input));
  }

 private:
  pnx::testing::TempDir device_;
  std::string bundle_;
};

// `pnx serve --port 0 arguments...` on a device of its own; its first line gives the URL. The
// runner comes first among the bases, so that the device directory exists before serve starts.
class PnxServe : private PnxRunner, public PnxProcess {
 public:
  explicit PnxServe(std::vector<std::string> arguments = {})
      : PnxProcess(PnxRunner::arguments(withServe(std::move(arguments)))) {
    auto first = nextLine();
    if (const std::string* url = first ? (*first)["listening"].asString() : nullptr) url_ = *url;
  }

  const std::string& url() const { return url_; }
  int port() const { return url_.empty() ? 0 : std::stoi(url_.substr(url_.rfind(':') + 1)); }
  httplib::Client client() const {
    httplib::Client client("127.0.0.1", port());
    client.set_read_timeout(10, 0);
    return client;
  }

 private:
  static std::vector<std::string> withServe(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"serve", "--port", "0"});
    return arguments;
  }

  std::string url_;
};
