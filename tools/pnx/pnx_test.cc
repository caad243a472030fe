// The pnx program's contract with its users: the version, usage errors as one line with
// exit code 2, and JSON output that never fails to serialise.

#include <cmath>
#include <limits>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/foundation/error.h"
#include "tools/pnx/command.h"
#include "tools/pnx/run_pnx_test.h"

namespace pnx {
namespace {

TEST(PnxProgram, VersionAndHelpExitZeroForTheProgramAndEveryCommand) {
  PnxRunner pnx;
  // The library's version, whatever the globals.
  for (const PnxRun& run : {runPnx({"--version"}), pnx.run({"--version"})}) {
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "3.8.0\n");
    EXPECT_EQ(run.err, "");
  }

  PnxRun help = runPnx({"--help"});
  EXPECT_EQ(help.exitCode, 0) << help.err;
  // Each command listed under "Subcommands:" has a help of its own.
  std::istringstream lines(help.out.substr(help.out.find("Subcommands:")));
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line) && line.starts_with("  ")) {
    if (line[2] == ' ') continue;  // a description's next line
    const std::string command = line.substr(2, line.find(' ', 2) - 2);
    SCOPED_TRACE(command);
    PnxRun commandHelp = pnx.run({command, "--help"});
    EXPECT_EQ(commandHelp.exitCode, 0) << commandHelp.err;
    EXPECT_NE(commandHelp.out.find("pnx " + command), std::string::npos);
    expectPnxFailure(pnx.run({command, "--no-such-option"}), 2, "--no-such-option");
  }
}

TEST(PnxProgram, UsageErrorsAndAMissingBundleFailInOneLine) {
  PnxRunner pnx;
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"nonsense"}, "unknown command 'nonsense'"},
      {{"--bogus"}, "unknown option '--bogus'"},
      {{}, "a command is required"},
      // Control characters are escaped and a long name is cut short.
      {{"\x1b[2J\x1b]0;title\x07" + std::string(100000, 'x')},
       "unknown command '\\x1b[2J\\x1b]0;title\\x07xxx"},
      // A name quoted in a command's own error, here a keychain item's.
      {{"keychain", "set", "\x1b[31mred\x1b[0m", "not json"},
       "the value for \\x1b[31mred\\x1b[0m is not JSON"},
  };
  for (const auto& [arguments, mentions] : cases) {
    const PnxRun run = pnx.run(arguments);
    expectPnxFailure(run, 2, mentions);
    EXPECT_LT(run.err.size(), 200u) << run.err;
    EXPECT_EQ(run.err.find('\x1b'), std::string::npos) << run.err;
  }
  expectPnxFailure(runPnx({"--device"}), 2, "--device");

  // A bundle directory that is not there, named by option or by environment, is a failure.
  const std::string missing = pnx.device() + "/no-such-bundle";
  expectPnxFailure(runPnx({"--device", pnx.device(), "--bundle", missing, "config"}), 1, missing);
  expectPnxFailure(runPnx({"--device", pnx.device(), "config"}, "", {"PNX_BUNDLE=" + missing}), 1,
                   missing);
}

TEST(PnxJSONText, WritesCompactJSONAndTurnsWhatJSONCannotHoldIntoText) {
  const pnx::Date date(1625065452.25);
  const std::pair<pnx::Value, std::string> cases[] = {
      // Compact, keys in order; what JSON itself holds is the serialiser's (tested with it).
      {pnx::Value::dict({{"b", pnx::Value::array({1, "x"})}, {"a", nullptr}}),
       R"({"a":null,"b":[1,"x"]})"},
      {date, "\"" + date.iso8601() + "\""},
      // Data as standard base64 (OpenSSL's), padded.
      {pnx::Data{0xff, 0x00, 0xfe, 0x7f}, R"("/wD+fw==")"},
      {std::numeric_limits<double>::quiet_NaN(), "null"},
      {pnx::Value::array({-std::numeric_limits<double>::infinity()}), "[null]"},
      // Inside containers too, keys that are no strings and sets included.
      {pnx::Value::array({pnx::Dictionary{{5, "five"}, {"set", pnx::Set{pnx::Data{'f'}, 2}}}}),
       R"([{"5":"five","set":[2,"Zg=="]}])"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(pnxJSONText(value), text);
  auto error = pnx::Error::withDescription("test.domain", 7, "went wrong");
  EXPECT_EQ(pnxJSONText(pnx::Value(error)), pnxJSONText(error->description()));

  // Large data is encoded in pieces; only the end is padded.
  pnx::Data large((3u << 20) + 4, 0xfb);
  const std::string text = pnxJSONText(large);
  EXPECT_EQ(text.size(), 2 + 4 * ((large.size() + 2) / 3));
  EXPECT_EQ(text.find('='), text.size() - 3);
  EXPECT_EQ(text.substr(text.size() - 10), "7+/v7+w==\"");
}

}  // namespace
}  // namespace pnx
