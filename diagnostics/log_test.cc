#include "diagnostics/log.h"

#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "diagnostics/log_capture_test.h"
#include "platform/files/fixtures_test.h"

namespace {

using Lines = std::vector<std::string>;
const std::string kNone = "\xE2\x80\xBC\xEF\xB8\x8F ";
const std::string kError = "\xF0\x9F\x9B\x91 ";
constexpr std::size_t kStampLength = 27;  // "[2021-06-30T17:04:12+0200] "

void writeC(PNXLogLevel level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  PNXLogWrite(level, format, args);
  va_end(args);
}

// The file's lines without their stamps and, unless kept, their marks (checked whole above all).
Lines unstamped(const std::string& text, bool keepMarks = false) {
  Lines lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line.substr(keepMarks ? kStampLength : line.find(' ', kStampLength) + 1));
  return lines;
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log.setLogLevelName("trace");
    log.setLogsDirectory(dir.path());
    log.setLogToFile(true);
    log.setMaximumSize(10485760);
    log.setMaximumNumberOfLogFiles(7);
  }
  void TearDown() override {
    log.drain();
    log.setLogToFile(false);
    log.setLogsDirectory(PNXLog::defaultLogsDirectory());
  }

  pnx::testing::ScopedDevice device;
  pnx::testing::TempDir dir;
  LogCapture capture;
  PNXLog& log = PNXLog::sharedInstance();
};

// Level 0 lines from C pass at none, not to the system log; file lines carry local time and its
// offset. Level names match in any case; unknown names and none leave the level as it was.
TEST_F(LogTest, FileLinesAreStampedAndLevelsPassAsTheTableSaysWithTheirMarksAndTypes) {
  {
    pnx::testing::ScopedEnv zone("TZ", "PNX-2");  // two hours east of UTC
    tzset();
    pnx::Clock::set(pnx::Date(1625065452));  // 2021-06-30 15:04:12 UTC
    log.setLogLevelName("none");
    writeC(0, "%@ and %{public}@ and %@: %d%%", "a", "b", static_cast<const char*>(nullptr), 7);
    writeC(1, "dropped");
    PNXLogError("dropped too");
    EXPECT_TRUE(capture.lines().empty());
    log.setLogLevelName("error");
    PNXLogError("text");
    log.drain();
    pnx::Clock::useSystemClock();
  }
  tzset();
  const std::string stamp = "[2021-06-30T17:04:12+0200] ";
  EXPECT_EQ(dir.read("PNX.log"),
            stamp + kNone + "a and b and (null): 7%\n" + stamp + kError + "text\n");

  log.setLogToFile(false);
  const char* names[] = {"NONE", "ERROR", "WARN", "INFO", "VERBOSE", "TRACE"};
  const char* givenNames[] = {"none", "Error", "WARN", "info", "Verbose", "trace"};
  const std::string marks[] = {kError, "\xE2\x9A\xA0\xEF\xB8\x8F ", "\xF0\x9F\x94\xB5 ",
                               "\xE2\x9A\xAB\xEF\xB8\x8F ", "\xE2\x9A\xAA\xEF\xB8\x8F "};
  for (PNXLogLevel current = 0; current <= 5; ++current) {
    log.setLogLevelName(givenNames[current]);
    EXPECT_EQ(log.logLevelName(), names[current]);
    capture.clear();
    PNXLogError("at %ld", current);
    PNXLogWarn("at %ld", current);
    PNXLogInfo("at %ld", current);
    PNXLogVerbose("at %ld", current);
    PNXLogTrace("at %ld", current);
    Lines expected;
    for (PNXLogLevel level = 1; level <= current; ++level)
      expected.push_back(marks[level - 1] + "at " + std::to_string(current));
    EXPECT_EQ(capture.lines(), expected) << "at level " << names[current];
  }
  using enum pnx::LogType;
  EXPECT_EQ(capture.types(), (std::vector<pnx::LogType>{Error, Info, Info, Debug, Debug}));
  log.setLogLevelName("DEBUG");
  log.setLogLevelName(std::nullopt);
  EXPECT_EQ(log.logLevelName(), "TRACE");
}

// Each line is 27 + 5 + 3 + 1 = 36 bytes: two of them reach a limit of 72 but pass 71.
TEST_F(LogTest, RotatesOnlyPastMaximumSizeAndShiftsBackupsUpToTheLimit) {
  const std::pair<std::uint64_t, std::map<std::string, Lines>> cases[] = {
      {72, {{"PNX-1.log", {"ab1", "ab2", "ab3"}}, {"PNX.log", {"ab4"}}}},
      {71, {{"PNX-2.log", {"ab1", "ab2"}}, {"PNX-1.log", {"ab3", "ab4"}}, {"PNX.log", {}}}},
  };
  for (const auto& [limit, files] : cases) {
    const std::string logs = std::to_string(limit);
    std::filesystem::create_directory(dir.file(logs));
    log.setLogsDirectory(dir.file(logs));
    log.setMaximumSize(limit);
    for (int i = 1; i <= 4; ++i) PNXLogError("ab%d", i);
    log.drain();
    for (const auto& [name, lines] : files)
      EXPECT_EQ(unstamped(dir.read(logs + "/" + name)), lines) << logs << "/" << name;
  }

  // A file found oversized on opening is rotated first, which costs the line that found it.
  dir.write("PNX.log", std::string(101, 'x'));
  log.setLogsDirectory(dir.path());
  log.setMaximumSize(100);
  PNXLogError("lost");
  PNXLogError("kept");
  log.drain();
  EXPECT_EQ(dir.read("PNX-1.log"), std::string(101, 'x'));
  EXPECT_EQ(unstamped(dir.read("PNX.log")), Lines{"kept"});

  // Backups shift up to the limit and stop at a gap. Rows: the limit, the files before, and
  // after it each file's name -> the name it had before.
  const std::tuple<std::int32_t, Lines, std::map<std::string, std::string>> shifts[] = {
      {7,
       {"PNX.log", "PNX-1.log", "PNX-3.log"},
       {{"PNX-1.log", "PNX.log"}, {"PNX-2.log", "PNX-1.log"}, {"PNX-3.log", "PNX-3.log"}}},
      {1, {"PNX.log", "PNX-1.log"}, {{"PNX-1.log", "PNX.log"}}},
      {0, {"PNX.log", "PNX-1.log"}, {{"PNX-1.log", "PNX.log"}}},
      {2,
       {"PNX.log", "PNX-1.log", "PNX-2.log", "PNX-3.log"},
       {{"PNX-1.log", "PNX.log"}, {"PNX-2.log", "PNX-1.log"}, {"PNX-3.log", "PNX-3.log"}}},
  };
  for (const auto& [limit, before, after] : shifts) {
    const std::string sub = std::to_string(limit);
    for (const std::string& name : before) dir.write(sub + "/" + name, name);
    log.setLogsDirectory(dir.file(sub));
    log.setMaximumNumberOfLogFiles(limit);
    log.rotate();
    std::map<std::string, std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(dir.file(sub)))
      found[entry.path().filename()] = dir.read(sub + "/" + entry.path().filename().string());
    EXPECT_EQ(found, after) << "limit " << limit;
  }
}

// Problems with a directory fall back to the documents directory.
TEST_F(LogTest, ANewDirectoryIsCreatedPrivateAndUnusablePlacesAreRefused) {
  PNXLogError("first");
  log.drain();
  log.setLogsDirectory(dir.file("new/logs"));
  PNXLogError("second");
  log.drain();
  EXPECT_EQ(unstamped(dir.read("PNX.log")), Lines{"first"});
  EXPECT_EQ(unstamped(dir.read("new/logs/PNX.log")),
            (Lines{"second", "Specified output directory does not exist, created."}));
  EXPECT_EQ(pnx::testing::modeOf(dir.file("new/logs")), 0700u);
  EXPECT_EQ(pnx::testing::modeOf(dir.file("new/logs/PNX.log")), 0600u);

  const std::string plainFile = dir.write("plain", "not a directory");
  log.setLogsDirectory(plainFile);
  PNXLogError("after fallback");
  log.drain();
  EXPECT_EQ(log.logsDirectory(), PNXLog::defaultLogsDirectory());
  EXPECT_EQ(dir.read("plain"), "not a directory");
  std::ifstream in(PNXLog::defaultLogsDirectory() + "/PNX.log");
  EXPECT_EQ(
      unstamped(std::string(std::istreambuf_iterator<char>(in), {})),
      (Lines{"after fallback", "Specified output directory is a file, resetting to default."}));

  dir.write("blocker", "x");
  log.setLogsDirectory(dir.file("blocker/sub"));
  PNXLogError("again");
  EXPECT_TRUE(capture.contains(kError + "Specified output directory didn't exist and couldn't be "
                                        "created, resetting to default. Error was: "));
  EXPECT_EQ(log.logsDirectory(), PNXLog::defaultLogsDirectory());

  // A symbolic link in the place of "PNX.log" is neither followed nor replaced; said so once.
  const std::string target = dir.write("elsewhere/target", "");
  std::filesystem::create_directory(dir.file("linked"));
  std::filesystem::create_symlink(target, dir.file("linked/PNX.log"));
  log.setLogsDirectory(dir.file("linked"));
  PNXLogError("first");
  PNXLogError("second");
  log.drain();
  EXPECT_TRUE(std::filesystem::is_symlink(dir.file("linked/PNX.log")));
  EXPECT_EQ(dir.read("elsewhere/target"), "");
  const std::string refused =
      kError + "Refused log file " + dir.file("linked/PNX.log") + ": it is a symbolic link.";
  EXPECT_EQ(std::ranges::count(capture.lines(), refused), 1);
}

TEST_F(LogTest, LinesFromManyThreadsKeepTheirOrderAndHostMarksAreKept) {
  log.drain();
  const auto savedMarks = pnxFlags;
  pnxFlags = {{1, "E: "}};
  constexpr int kThreads = 4;
  constexpr int kLinesEach = 250;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLinesEach; ++i) PNXLogError("%d %d", t, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  log.drain();
  pnxFlags = savedMarks;

  std::vector<int> next(kThreads, 0);
  Lines lines = unstamped(dir.read("PNX.log"), true);
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLinesEach));
  for (const std::string& line : lines) {
    int thread = -1, index = -1;
    ASSERT_EQ(std::sscanf(line.c_str(), "E: %d %d", &thread, &index), 2) << line;
    EXPECT_EQ(index, next[thread]++);
  }
}

// Two processes write numbered lines into the same files, rotating them as they go: every
// line ends up whole in "PNX.log" or a backup (enough backups are kept that none is dropped).
TEST_F(LogTest, TwoProcessesWritingAndRotatingTheSameFilesLoseNoLine) {
  log.drain();
  log.setMaximumSize(4096);
  log.setMaximumNumberOfLogFiles(1000);
  constexpr int kProcesses = 2;
  constexpr int kLinesEach = 3000;
  Lines expected, found;
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    for (int i = 0; i < kLinesEach; ++i)
      expected.push_back("process " + std::to_string(process) + " line " + std::to_string(i));
    const pid_t pid = fork();
    if (pid == 0) {
      for (int i = 0; i < kLinesEach; ++i) log.writeFileLog(expected[process * kLinesEach + i]);
      _exit(0);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    ++files;
    std::istringstream lines(dir.read(entry.path().filename().string()));
    for (std::string line; std::getline(lines, line);) found.push_back(line);
  }
  EXPECT_GT(files, 10);  // rotated many times over
  std::sort(expected.begin(), expected.end());
  std::sort(found.begin(), found.end());
  EXPECT_TRUE(found == expected) << "torn, lost or repeated lines";
}

}  // namespace
