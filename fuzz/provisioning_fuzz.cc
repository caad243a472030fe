// Fuzzes the provisioning profile reader on arbitrary file bytes: the hex markers, the cut
// between them, UTF-8 and property-list parsing, the environment decision.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "config/provisioning.h"
#include "diagnostics/log.h"
#include "platform/system/system_log.h"

namespace {

// Log lines are composed (the formatting is part of what is fuzzed) and then dropped.
struct NullSink final : pnx::LogSink {
  void systemLog(pnx::LogType, std::string_view, std::string_view, std::string_view) override {}
  void console(std::string_view) override {}
};

std::string profilePath;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  pnx::SystemLog::setSink(std::make_shared<NullSink>());
  PNXLog::sharedInstance().setLogLevelName("trace");
  const char* base = std::getenv("TMPDIR");
  profilePath = std::string(base && *base ? base : "/tmp") + "/pnx-fuzz-" +
                std::to_string(getpid()) + ".mobileprovision";
  std::atexit([] { std::remove(profilePath.c_str()); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  {
    std::ofstream file(profilePath, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  PNXProvisioning reader(profilePath);
  auto environment = reader.binaryEnvironment();
  if (environment && *environment != "debug" && *environment != "ad-hoc" &&
      *environment != "enterprise" && *environment != "appstore") {
    std::abort();
  }
  if (!environment && (reader.certificateExpiration() || reader.certificateExpired())) std::abort();
  reader.provisionedDevices().description();
  PNXLog::sharedInstance().drain();
  return 0;
}
