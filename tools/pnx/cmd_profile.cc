// pnx profile: reads the bundle's provisioning profile (or the file given with --file) as
// the extension does and prints what it found: the environment, the expiration as ISO 8601,
// whether it has expired, and the provisioned devices; null for anything not found.

#include <filesystem>
#include <memory>
#include <string>

#include "config/provisioning.h"
#include "diagnostics/log.h"
#include "platform/foundation/format.h"
#include "tools/pnx/command.h"

namespace pnx {
namespace {

pnx::Value profileAsJSON(const PNXProvisioning& profile) {
  auto environment = profile.binaryEnvironment();
  auto expiration = profile.certificateExpiration();
  return pnx::Value::dict({
      {"binaryEnvironment", environment ? pnx::Value(*environment) : pnx::Value()},
      {"certificateExpiration", expiration ? pnx::Value(expiration->iso8601()) : pnx::Value()},
      {"certificateExpired", profile.certificateExpired()},
      {"provisionedDevices", profile.provisionedDevices()},
  });
}

CommandRegistration registration(
    "profile", "Read the provisioning profile as the extension would",
    [](CLI::App& sub) -> PnxCommandRun {
      auto file = std::make_shared<std::string>();
      sub.add_option("--file", *file, "A profile file to read instead of the bundle's")
          ->type_name("PATH");
      return [file](const PnxGlobals&) {
        std::error_code ignored;
        if (!file->empty() && !std::filesystem::is_regular_file(*file, ignored)) {
          return pnxFail("no profile file at '" + pnx::excerpt(*file, 512) + "'");
        }
        auto profile = file->empty() ? PNXProvisioning::sharedInstance()
                                     : std::make_shared<PNXProvisioning>(*file);
        PNXLog::sharedInstance().drain();
        if (!profile->binaryEnvironment()) {
          pnxProgress("no provisioning profile could be read; pnx --log profile shows why");
        }
        pnxPrintJSON(profileAsJSON(*profile));
        return 0;
      };
    });

}  // namespace
}  // namespace pnx
