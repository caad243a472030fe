// The process's current FileManager and the path helpers.
#include "platform/files/file_manager.h"

#include <mutex>
#include <vector>

#include "platform/foundation/plist.h"

namespace pnx {
namespace {

struct Installed {
  std::mutex mutex;
  std::shared_ptr<FileManager> current;
  // Replaced managers stay alive until the process ends: a caller may still be inside
  // one (a log queue writing while a test swaps in a fault fake).
  std::vector<std::shared_ptr<FileManager>> retired;
};

Installed& installed() {
  static Installed* state = new Installed;  // never destroyed: used by late writers
  return *state;
}

}  // namespace

FileManager& FileManager::current() {
  Installed& state = installed();
  std::lock_guard lock(state.mutex);
  if (!state.current) state.current = posix();
  return *state.current;
}

void FileManager::setCurrent(std::shared_ptr<FileManager> manager) {
  if (!manager) manager = posix();
  Installed& state = installed();
  std::lock_guard lock(state.mutex);
  if (state.current) state.retired.push_back(std::move(state.current));
  state.current = std::move(manager);
}

std::optional<Value> propertyListWithContentsOfFile(const std::string& path, ErrorPtr* error) {
  auto bytes = FileManager::current().contentsOfFile(path, error);
  if (!bytes) return std::nullopt;
  return PropertyList::parse(*bytes, error);
}

std::string pathByAppendingComponent(const std::string& directory, const std::string& component) {
  std::size_t first = component.find_first_not_of('/');
  std::string tail = first == std::string::npos ? std::string() : component.substr(first);
  std::string head = directory;
  while (head.size() > 1 && head.back() == '/') head.pop_back();
  if (head.empty()) return tail;
  if (tail.empty()) return head;
  return head.back() == '/' ? head + tail : head + "/" + tail;
}

std::string lastPathComponent(const std::string& path) {
  std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return path.empty() ? "" : "/";
  std::size_t start = path.rfind('/', end);
  start = start == std::string::npos ? 0 : start + 1;
  return path.substr(start, end + 1 - start);
}

std::string pathByDeletingLastComponent(const std::string& path) {
  std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return path.empty() ? "" : "/";
  std::size_t slash = path.rfind('/', end);
  if (slash == std::string::npos) return "";
  std::size_t keep = path.find_last_not_of('/', slash);
  return keep == std::string::npos ? "/" : path.substr(0, keep + 1);
}

}  // namespace pnx
