// pnx serve, as pnx offers it: the server lives in the program pnx-serve beside pnx, which
// alone links the HTTP server library. That library sets OpenSSL up as it is loaded, some
// 3 ms of every start; so pnx hands the whole command line to pnx-serve (exec: the same
// process, so the same signals and exit status), and every other command starts without it.
// pnx-serve parses it again, options and help included.

#include "tools/pnx/command.h"

using namespace pnx;

namespace {

CommandRegistration registration("serve", kServeSummary, [](CLI::App& sub) -> PnxCommandRun {
  // Whatever follows is pnx-serve's to judge, --help included.
  sub.set_help_flag();
  sub.fallthrough(false);
  sub.allow_extras();
  sub.prefix_command();
  return [](const PnxGlobals&) { return pnxExecSibling("pnx-serve"); };
});

}  // namespace
