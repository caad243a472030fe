// The pnx command registry and the helpers every command shares.
//
// A command lives in its own file and registers itself with a static object, so adding
// one never touches main.cc:
//
//   static CommandRegistration registration(
//       "config", "Load the configuration as the extension would",
//       [](CLI::App& sub) -> PnxCommandRun {
//         auto verbose = std::make_shared<bool>(false);
//         sub.add_flag("--verbose", *verbose, "Say more on stderr");
//         return [verbose](const PnxGlobals& globals) {
//           pnxPrintJSON(...);  // the result, one line of JSON on stdout
//           return 0;
//         };
//       });
//
// main.cc parses the command line, applies the globals (pnxPrepare) and runs the chosen
// command's function. Conventions: JSON results on stdout, progress on stderr; return 0 on
// success, pnxFail(...) (1) on failure, pnxUsage(...) (2) for arguments that CLI11 accepted
// but the command cannot use. Exceptions escaping a command become a one-line failure.
//
// Thread-safety: registration happens during static initialisation, before main; the
// helpers write to stdout/stderr and are meant for the main thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "platform/foundation/value.h"

namespace pnx {

// The global options, resolved: --device (else $PNX_DEVICE, else the platform's default)
// and --bundle (else $PNX_BUNDLE, else empty: no main bundle).
// --log also shows the library's system-log lines on stderr.
struct PnxGlobals {
  std::string device;
  std::string bundle;
  bool logToStderr = false;
};

// Runs the chosen command and returns the process's exit code.
using PnxCommandRun = std::function<int(const PnxGlobals&)>;
// Adds the command's options and arguments to `sub` and returns the function that runs it.
// Values bound to options must outlive the call: keep them in shared_ptrs captured by the
// returned function.
using CommandSetup = std::function<PnxCommandRun(CLI::App& sub)>;

struct CommandRegistration {
  CommandRegistration(const char* name, const char* help, CommandSetup setup);
};

struct RegisteredCommand {
  std::string name;
  std::string help;
  CommandSetup setup;
};

// Every registered command, sorted by name.
std::vector<RegisteredCommand> registeredCommands();

// The summary of `pnx serve`, shown by pnx and by pnx-serve alike.
inline constexpr const char* kServeSummary =
    "Run a stand-in for the push backend on 127.0.0.1: delivery reports, faults, media";

// main.cc keeps the command line, so that a command can hand the whole of it to a sibling
// program (pnxExecSibling).
void pnxRememberArguments(int argc, char** argv);
// Replaces this process with the program `name` from pnx's own directory, given the same
// command line. Returns (1, one line on stderr) only when that cannot be done.
int pnxExecSibling(const std::string& name);

// Applies --device / --bundle to the platform layer (pnx::Device::setDirectory,
// pnx::Bundle::setMain) and, with --log, routes the system log to stderr. main.cc calls it
// before running a command.
void pnxPrepare(const PnxGlobals& globals);

// `value` as one line of compact JSON. Never fails: dates become ISO 8601 strings, data
// base64, sets arrays, objects (errors, URLs) and non-string dictionary keys their
// description, NaN and infinities null.
std::string pnxJSONText(const pnx::Value& value);
// Prints pnxJSONText(value) and a newline on stdout.
void pnxPrintJSON(const pnx::Value& value);

// One line "pnx: <message>" on stderr; returns 1, the failure exit code.
int pnxFail(const std::string& message);
// One line "pnx: <message>; see pnx --help" on stderr; returns 2, the usage exit code.
int pnxUsage(const std::string& message);
// A progress line "pnx: <message>" on stderr, for humans.
void pnxProgress(const std::string& message);

}  // namespace pnx
