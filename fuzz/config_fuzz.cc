// Fuzzes the configuration reader on arbitrary JSON text, through the bundle's file as the
// extension reads it: parsing, every typed getter and validator, the clamps, the app key
// choice and the base URL reduction. Only the two configuration exceptions may escape.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "config/config.h"
#include "diagnostics/log.h"
#include "platform/files/bundle.h"
#include "platform/files/container.h"
#include "platform/foundation/error.h"
#include "platform/system/system_log.h"

namespace {

struct NullSink final : pnx::LogSink {
  void systemLog(pnx::LogType, std::string_view, std::string_view, std::string_view) override {}
  void console(std::string_view) override {}
};

std::string scratchRoot;
std::string configPath;

// A bundle and a device of the fuzzer's own, so that a configuration that turns the file
// log on writes into a scratch directory.
void makeScratchDevice() {
  const char* base = std::getenv("TMPDIR");
  const std::string root =
      std::string(base && *base ? base : "/tmp") + "/pnx-config-fuzz-" + std::to_string(getpid());
  scratchRoot = root;
  std::filesystem::create_directories(root + "/Bundle.app");
  std::ofstream(root + "/Bundle.app/Info.plist")
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
         "<key>CFBundleIdentifier</key><string>com.example.fuzz</string></dict></plist>";
  pnx::Device::setDirectory(root + "/device");
  pnx::Bundle::setMain(root + "/Bundle.app");
  configPath = root + "/Bundle.app/PnxConfig.json";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  pnx::SystemLog::setSink(std::make_shared<NullSink>());
  makeScratchDevice();
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(scratchRoot, ignored);
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  {
    std::ofstream file(configPath, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  try {
    PNXConfig config;
    if (config.locationSyncTimeout() < kMinSyncTimeout) std::abort();
    if (config.maximumGeofenceCount() > kMaximumGeofenceCount) std::abort();
    if (config.sessionTimeout() < 1 || config.databaseKeyRotationDays() < 0) std::abort();
    if (config.appKey() && !config.checkAppKey(config.appKey())) std::abort();
    if (config.baseUrl().scheme().empty()) std::abort();
  } catch (const pnx::Exception& exception) {
    if (exception.name() != "Invalid Config File" && exception.name() != "Invalid Config value") {
      std::abort();
    }
  }
  // Keep the log's settings from one input out of the next.
  PNXLog& log = PNXLog::sharedInstance();
  log.drain();
  log.setLogToFile(false);
  log.setLogLevelName("trace");
  return 0;
}
