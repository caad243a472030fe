// Test fixtures shared by every subsystem's tests. They use std::filesystem, not FileManager,
// so they work while a test has installed a failing one. Inside `namespace pnx`, name
// GoogleTest's namespace `::testing`. Build and destroy them on the test's main thread.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/files/bundle.h"
#include "platform/files/container.h"

namespace pnx::testing {

// A fresh directory under $TMPDIR (or /tmp), removed whole at the end, read-only parts too.
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

  // Writes <path>/<relativePath>, creating the directories on the way; returns its path.
  std::string write(std::string_view relativePath, std::string_view text) const {
    std::string full = file(relativePath);
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream out(full, std::ios::binary);
    if (!(out << text)) throw std::runtime_error("could not write " + full);
    return full;
  }

  // The whole contents of <path>/<relativePath> (empty when it can't be read).
  std::string read(std::string_view relativePath) const {
    std::ifstream in(file(relativePath), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

 private:
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

// Points the device directory and the main bundle (holding an Info.plist with the given
// identifier) at temporary directories, and restores the previous ones afterwards.
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

  std::string deviceDirectory() const { return root_.file("device"); }
  std::string bundleDirectory() const { return root_.file("Bundle.app"); }
  TempDir& root() { return root_; }

  // Writes a bundle file (returning its path) and names the bundle main again: reads it anew.
  std::string writeBundleFile(std::string_view relativePath, std::string_view text) {
    std::string full = root_.write("Bundle.app/" + std::string(relativePath), text);
    Bundle::setMain(bundleDirectory());
    return full;
  }

  // An XML Info.plist naming the bundle identifier, then any other entries.
  static std::string infoPlist(std::string_view bundleIdentifier, std::string_view entries = "") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
           "  <key>CFBundleIdentifier</key>\n  <string>" +
           std::string(bundleIdentifier) + "</string>\n" + std::string(entries) +
           "</dict>\n</plist>\n";
  }

 private:
  TempDir root_;
  std::string previousDevice_;
  bool deviceWasDefault_;
  std::string previousBundle_;
};

// Sets an environment variable for one scope (nullptr unsets it).
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = getenv(name)) old_ = old;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// The permission bits of a file (0 when it can't be examined).
inline mode_t modeOf(const std::string& path) {
  struct stat info {};
  stat(path.c_str(), &info);
  return info.st_mode & 07777;
}

// Writes a self-signed certificate for 127.0.0.1 and its key as <dir>/cert.pem and
// <dir>/key.pem with the openssl tool; false when they could not be made.
inline bool writeLocalCertificate(const TempDir& dir) {
  const std::string command =
      "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
      "-addext subjectAltName=IP:127.0.0.1 -keyout '" +
      dir.file("key.pem") + "' -out '" + dir.file("cert.pem") + "' 2>/dev/null";
  return std::system(command.c_str()) == 0;
}

}  // namespace pnx::testing
