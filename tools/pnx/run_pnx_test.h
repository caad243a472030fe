// Test helpers that run the built pnx program (PNX_BINARY) in a child process and capture
// its exit code, stdout and stderr, so that commands are tested the way people use them:
// one process per run, files on disk between runs.
//
//   PnxRunner pnx;                       // a fresh device directory, the sample bundle
//   PnxRun run = pnx.run({"config"});
//   EXPECT_EQ(run.exitCode, 0) << run.err;
//   auto config = run.json();
//
// The child's stdin reads PnxRunOptions::input (empty by default), its output goes to files,
// so a chatty child can never block on a full pipe. $PNX_DEVICE and $PNX_BUNDLE are removed
// from the child's environment so that the developer's own settings never leak into a test.
//
// Thread-safety: none needed; use from the test's thread.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/fixtures_test.h"
#include "platform/foundation/json.h"
#include "platform/foundation/value.h"

extern char** environ;

struct PnxRun {
  int exitCode = -1;  // the process's exit status, or 128 + signal when it was killed
  int signal = 0;     // the signal that ended it (a crash), 0 when it exited
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

inline std::vector<std::string> childEnvironment(const std::vector<std::string>& extra) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry; ++entry) {
    std::string_view text(*entry);
    if (text.starts_with("PNX_DEVICE=") || text.starts_with("PNX_BUNDLE=")) continue;
    entries.emplace_back(text);
  }
  entries.insert(entries.end(), extra.begin(), extra.end());
  return entries;
}

inline std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (auto& text : strings) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace pnx_test_detail

// Runs `pnx arguments...` and waits for it to end.
inline PnxRun runPnx(std::vector<std::string> arguments, const PnxRunOptions& options = {}) {
  using namespace pnx_test_detail;
  pnx::testing::TempDir io;
  const std::string inPath = io.file("stdin"), outPath = io.file("stdout"),
                    errPath = io.file("stderr");
  std::ofstream(inPath, std::ios::binary) << options.input;

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, inPath.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);

  arguments.insert(arguments.begin(), PNX_BINARY);
  std::vector<std::string> environment = childEnvironment(options.environment);
  std::vector<char*> argv = pointers(arguments), envp = pointers(environment);
  pid_t pid = 0;
  const int spawnError = posix_spawn(&pid, PNX_BINARY, &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawnError != 0) throw std::runtime_error("cannot start " PNX_BINARY);

  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  PnxRun run;
  if (WIFEXITED(status)) {
    run.exitCode = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    run.signal = WTERMSIG(status);
    run.exitCode = 128 + run.signal;
  }
  run.out = readWholeFile(outPath);
  run.err = readWholeFile(errPath);
  return run;
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
  const std::string& bundle() const { return bundle_; }

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
