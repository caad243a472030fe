#include "platform/files/container.h"

#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <vector>

#include "platform/files/bundle.h"
#include "platform/files/file_manager.h"

namespace pnx {
namespace {

std::mutex& deviceMutex() {
  static std::mutex mutex;
  return mutex;
}

std::string& namedDevice() {
  static std::string path;
  return path;
}

std::string environment(const char* name) {
  const char* value = getenv(name);
  return value ? value : "";
}

// $HOME, or the password database's home directory when HOME is unset.
std::string homeDirectory() {
  std::string home = environment("HOME");
  if (!home.empty()) return home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir) {
    return found->pw_dir;
  }
  return "/tmp";
}

// A bundle identifier is one path component: keep it from naming anything outside
// <device>/containers.
std::string containerName(std::string identifier) {
  for (char& c : identifier) {
    if (c == '/') c = '_';
  }
  if (identifier.empty() || identifier == "." || identifier == "..") return "unknown.bundle";
  return identifier;
}

// Creates the directory (and what leads to it) private to the user. A failure is left for
// the caller's own file operation to report, with its path.
std::string ensureDirectory(const std::string& path) {
  FileAttributes attributes;
  attributes.posixPermissions = 0700;
  ErrorPtr ignored;
  FileManager::current().createDirectory(path, true, attributes, &ignored);
  return path;
}

std::string containerSubdirectory(const char* name) {
  return ensureDirectory(pathByAppendingComponent(Container::root(), name));
}

}  // namespace

std::string Device::directory() {
  {
    std::lock_guard lock(deviceMutex());
    if (!namedDevice().empty()) return namedDevice();
  }
  return defaultDirectory();
}

void Device::setDirectory(const std::string& path) {
  std::lock_guard lock(deviceMutex());
  namedDevice() = path;
}

std::string Device::defaultDirectory() {
  std::string device = environment("PNX_DEVICE");
  if (!device.empty()) return device;
  std::string data = environment("XDG_DATA_HOME");
  if (data.empty()) data = homeDirectory() + "/.local/share";
  return data + "/pnx/device";
}

bool Device::preparePrivateDirectory(ErrorPtr* error) {
  std::string path = directory();
  FileManager& files = FileManager::current();
  FileAttributes attributes;
  attributes.posixPermissions = 0700;
  // An existing directory is fine; another process may also be creating it right now.
  if (!files.createDirectory(path, true, attributes, error)) return false;
  auto info = files.attributesOfItem(path, error);
  if (!info) return false;
  if ((info->posixPermissions & (S_IWGRP | S_IWOTH)) == 0) return true;
  if (error) {
    char mode[16];  // room for any unsigned in octal, which GCC checks at -O3
    snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info->posixPermissions));
    *error = Error::withDescription(
        NSCocoaErrorDomain, NSFileWriteNoPermissionError,
        "The device directory " + path + " can be written by group or others (mode " + mode +
            "), so its files cannot be trusted; make it private (chmod 700) to use it.",
        path);
  }
  return false;
}

std::string Container::root() {
  auto bundle = Bundle::main();
  std::string identifier = bundle ? bundle->bundleIdentifier().value_or("") : "";
  std::string containers = pathByAppendingComponent(Device::directory(), "containers");
  return ensureDirectory(pathByAppendingComponent(containers, containerName(identifier)));
}

std::string Container::documentsDirectory() {
  return containerSubdirectory("Documents");
}

std::string Container::libraryDirectory() {
  return containerSubdirectory("Library");
}

std::string Container::temporaryDirectory() {
  return containerSubdirectory("tmp");
}

}  // namespace pnx
