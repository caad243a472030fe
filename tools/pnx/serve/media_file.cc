#include "tools/pnx/serve/media_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>

namespace pnx::serve {

namespace {

// Where the descriptor really points, as the kernel resolved it when it was opened.
std::optional<std::string> openedPath(int fd) {
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  std::array<char, PATH_MAX + 1> target;
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  if (length <= 0 || static_cast<std::size_t>(length) >= target.size()) return std::nullopt;
  return std::string(target.data(), static_cast<std::size_t>(length));
}

}  // namespace

std::optional<std::string> mediaRoot(const std::string& dir) {
  char* resolved = realpath(dir.c_str(), nullptr);
  if (!resolved) return std::nullopt;
  std::string root(resolved);
  std::free(resolved);
  struct stat info;
  if (stat(root.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return std::nullopt;
  if (root == "/") root.clear();  // so that root + "/" is still the prefix to check
  return root;
}

std::shared_ptr<MediaFile> MediaFile::open(const std::string& root, const std::string& relative) {
  if (relative.empty()) return nullptr;
  const std::string path = root + "/" + relative;
  // O_NONBLOCK: opening a FIFO must not wait for a writer; it is refused just below.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return nullptr;
  struct stat info;
  const auto real = openedPath(fd);
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || !real || !real->starts_with(root + "/")) {
    ::close(fd);
    return nullptr;
  }
  return std::shared_ptr<MediaFile>(new MediaFile(fd, static_cast<std::uint64_t>(info.st_size)));
}

MediaFile::~MediaFile() {
  ::close(fd_);
}

ssize_t MediaFile::readAt(char* buffer, std::size_t length, std::uint64_t offset) const {
  while (true) {
    const ssize_t count = pread(fd_, buffer, length, static_cast<off_t>(offset));
    if (count >= 0 || errno != EINTR) return count;
  }
}

}  // namespace pnx::serve
