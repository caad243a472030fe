// Test fixtures shared by every subsystem's tests.
//
// TempDir: a fresh directory under $TMPDIR (or /tmp), removed with everything in it when
// the object goes away, even where a test left read-only directories behind.
// ScopedDevice: points the device directory and the main bundle at temporary directories
// for the lifetime of the object, and restores the previous ones afterwards. The bundle
// holds an Info.plist with the given bundle identifier; tests add PnxConfig.json and
// other resources with writeBundleFile().
//
// These helpers use std::filesystem directly, not FileManager, so that they keep working
// while a test has installed a failing FileManager.
//
// Note: inside `namespace pnx`, name GoogleTest's namespace as `::testing`.
// Not thread-safe: build and destroy them on the test's main thread.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/files/bundle.h"
#include "platform/files/container.h"

namespace pnx::testing {

class TempDir {
 public:
  TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/pnx-test-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = pattern;
  }
  ~TempDir() { removeTree(path_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // <path>/<name>; nothing is created.
  std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }

  // Writes text to <path>/<relativePath>, creating the directories on the way; returns the
  // full path.
  std::string write(std::string_view relativePath, std::string_view text) const {
    std::string full = file(relativePath);
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream out(full, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!out) throw std::runtime_error("could not write " + full);
    return full;
  }

  // The whole contents of <path>/<relativePath> (empty when it can't be read).
  std::string read(std::string_view relativePath) const {
    std::ifstream in(file(relativePath), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

 private:
  // Makes every directory writable again before removing, so that a test that left a
  // read-only tree behind still gets cleaned up.
  static void removeTree(const std::filesystem::path& root) {
    namespace fs = std::filesystem;
    std::error_code ec;
    if (fs::is_directory(fs::symlink_status(root, ec))) {
      fs::permissions(root, fs::perms::owner_all, fs::perm_options::add, ec);
      for (fs::directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        removeTree(it->path());
      }
    }
    fs::remove(root, ec);
  }

  std::string path_;
};

class ScopedDevice {
 public:
  explicit ScopedDevice(std::string bundleIdentifier = "com.example.pnx.tests")
      : previousDevice_(Device::directory()),
        deviceWasDefault_(previousDevice_ == Device::defaultDirectory()) {
    auto previousBundle = Bundle::main();
    if (previousBundle) previousBundle_ = previousBundle->bundlePath();
    writeBundleFile("Info.plist", infoPlist(bundleIdentifier));
    Device::setDirectory(deviceDirectory());
  }
  ~ScopedDevice() {
    Device::setDirectory(deviceWasDefault_ ? std::string() : previousDevice_);
    Bundle::setMain(previousBundle_);
  }
  ScopedDevice(const ScopedDevice&) = delete;
  ScopedDevice& operator=(const ScopedDevice&) = delete;

  std::string deviceDirectory() const { return root_.file("device"); }
  std::string bundleDirectory() const { return root_.file("Bundle.app"); }
  TempDir& root() { return root_; }

  // Writes a file into the bundle and names the bundle main again, so that a replaced
  // Info.plist is read anew. Returns the file's full path.
  std::string writeBundleFile(std::string_view relativePath, std::string_view text) {
    std::string full = root_.write("Bundle.app/" + std::string(relativePath), text);
    Bundle::setMain(bundleDirectory());
    return full;
  }

  // An XML Info.plist naming only the bundle identifier.
  static std::string infoPlist(std::string_view bundleIdentifier) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
           "  <key>CFBundleIdentifier</key>\n  <string>" +
           std::string(bundleIdentifier) + "</string>\n</dict>\n</plist>\n";
  }

 private:
  TempDir root_;
  std::string previousDevice_;
  bool deviceWasDefault_;
  std::string previousBundle_;
};

}  // namespace pnx::testing
