#include "platform/files/bundle.h"

#include <sys/stat.h>

#include <filesystem>
#include <mutex>

#include "platform/files/file_manager.h"

namespace pnx {
namespace {

std::mutex& mainMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<const Bundle>& mainBundle() {
  static std::shared_ptr<const Bundle> bundle;
  return bundle;
}

// An absolute path without a trailing slash, so that bundlePath() names the bundle the
// same way whatever the host was given ("SampleApp/", "./SampleApp").
std::string normalizedPath(const std::string& path) {
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(path, ec);
  if (ec) absolute = path;
  std::string text = absolute.lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

// A resource name may reach into a subdirectory ("Sounds/ping") but never out of the
// bundle: no absolute names, no ".." components.
bool isContainedName(const std::string& name) {
  if (name.empty() || name.front() == '/') return false;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    if (name.compare(start, end - start, "..") == 0) return false;
    start = end + 1;
  }
  return true;
}

bool isFileOrDirectory(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && (S_ISREG(info.st_mode) || S_ISDIR(info.st_mode));
}

}  // namespace

Bundle::Bundle(std::string path) : path_(normalizedPath(path)), info_(Dictionary{}) {
  std::string plistPath = path_ + "/Info.plist";
  if (!isFileOrDirectory(plistPath)) return;
  auto info = propertyListWithContentsOfFile(plistPath);
  if (info && info->isDictionary()) info_ = *info;
}

std::shared_ptr<const Bundle> Bundle::main() {
  std::lock_guard lock(mainMutex());
  return mainBundle();
}

void Bundle::setMain(const std::string& path) {
  // Read Info.plist before taking the lock: readers never wait on the disk.
  auto bundle = path.empty() ? nullptr : std::make_shared<const Bundle>(path);
  std::lock_guard lock(mainMutex());
  mainBundle() = std::move(bundle);
}

std::optional<std::string> Bundle::bundleIdentifier() const {
  const std::string* identifier = info_["CFBundleIdentifier"].asString();
  if (!identifier || identifier->empty()) return std::nullopt;
  return *identifier;
}

std::optional<std::string> Bundle::pathForResource(const std::string& name,
                                                   const std::string& type) const {
  if (!isContainedName(name) || type.find('/') != std::string::npos) return std::nullopt;
  std::string file = path_ + "/" + name;
  if (!type.empty()) file += (type.front() == '.' ? "" : ".") + type;
  if (!isFileOrDirectory(file)) return std::nullopt;
  return file;
}

}  // namespace pnx
