// pnx: the host program. Parses the global options, builds one subcommand per registered
// command (see command.h) and runs the chosen one. Exit codes: 0 success, 1 failure,
// 2 usage error; every message on stderr is one line.

#include <cctype>
#include <filesystem>
#include <iostream>
#include <memory>
#include <utility>
#include <vector>

#include "diagnostics/log.h"
#include "platform/files/container.h"
#include "platform/foundation/error.h"
#include "platform/foundation/format.h"
#include "tools/pnx/command.h"

#ifndef PNX_VERSION
#error "PNX_VERSION must be defined by the build"
#endif

namespace pnx {
namespace {

// Paths are shown longer than other arguments, so that a deep one stays recognisable.
constexpr std::size_t kPathExcerptLength = 512;

struct ChosenCommand {
  CLI::App* sub;
  PnxCommandRun run;
};

// Arguments are quoted as excerpts: they may be anything the shell passes.
std::string inQuotes(const std::string& text, std::size_t maxBytes = pnx::kExcerptLength) {
  return "'" + pnx::excerpt(text, maxBytes) + "'";
}

// A parse error as one short sentence. Stray arguments are named first, whatever else went
// wrong (CLI11 checks requirements before it reports extras); otherwise CLI11's own wording.
std::string describeParseError(const CLI::ParseError& error, const CLI::App& app,
                               bool commandChosen) {
  const std::vector<std::string> extras = app.remaining(true);
  if (!extras.empty()) {
    const std::string& first = extras.front();
    if (first.size() > 1 && first[0] == '-') return "unknown option " + inQuotes(first);
    if (!commandChosen) return "unknown command " + inQuotes(first);
    return "unexpected argument " + inQuotes(first);
  }
  std::string message = error.what();
  if (!message.empty()) message[0] = static_cast<char>(std::tolower(message[0]));
  return message;
}

bool anyChosen(const std::vector<ChosenCommand>& commands) {
  for (const auto& command : commands) {
    if (command.sub->parsed()) return true;
  }
  return false;
}

int runPnx(int argc, char** argv) {
  CLI::App app{"Runs and inspects the push notification service on a simulated device.", "pnx"};
  app.fallthrough();  // global options may also follow the command
  app.require_subcommand(0, 1);
  app.footer(
      "Results are JSON on stdout; progress goes to stderr. Exit codes: 0 ok, 1 failure, "
      "2 usage error.");

  PnxGlobals globals;
  bool showVersion = false;
  app.add_option("--device", globals.device, "Simulated device directory")
      ->envname("PNX_DEVICE")
      ->type_name("DIR");
  app.add_option("--bundle", globals.bundle, "App bundle directory (Info.plist, PnxConfig.json)")
      ->envname("PNX_BUNDLE")
      ->type_name("DIR");
  app.add_flag("--log", globals.logToStderr, "Also show the library's log lines on stderr")
      ->envname("PNX_LOG");
  app.add_flag("--version", showVersion, "Print the library version and exit");

  std::vector<ChosenCommand> commands;
  for (const auto& registered : registeredCommands()) {
    CLI::App* sub = app.add_subcommand(registered.name, registered.help);
    commands.push_back({sub, registered.setup(*sub)});
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);  // --help
    return pnxUsage(describeParseError(error, app, anyChosen(commands)));
  }

  if (showVersion) {
    std::cout << PNX_VERSION << '\n';
    return 0;
  }
  for (const auto& command : commands) {
    if (!command.sub->parsed()) continue;
    if (!command.run) return pnxFail(command.sub->get_name() + " is not available");
    if (globals.device.empty()) globals.device = pnx::Device::defaultDirectory();
    std::error_code ignored;
    if (!globals.bundle.empty() && !std::filesystem::is_directory(globals.bundle, ignored)) {
      return pnxFail("no bundle directory at " + inQuotes(globals.bundle, kPathExcerptLength));
    }
    pnxPrepare(globals);
    int status = command.run(globals);
    // Lines still queued in the log reach the system log and the log file before exit.
    PNXLog::sharedInstance().drain();
    return status;
  }
  return pnxUsage("a command is required");
}

}  // namespace
}  // namespace pnx

int main(int argc, char** argv) {
  // Bad input must never crash pnx: whatever escapes a command becomes one line and exit 1.
  pnx::pnxRememberArguments(argc, argv);
  try {
    return pnx::runPnx(argc, argv);
  } catch (const pnx::Exception& exception) {
    return pnx::pnxFail(exception.name() + ": " + exception.reason());
  } catch (const std::exception& exception) {
    return pnx::pnxFail(exception.what());
  } catch (...) {
    return pnx::pnxFail("unexpected failure");
  }
}
