// Opening files of `pnx serve --media DIR` so that nothing outside DIR is ever served.
//
// Names reach this point already checked by safeMediaPath (no "..", no encoded slashes),
// but a symbolic link inside DIR may still lead out of it. So the file is opened first and
// the path of what was actually opened (the kernel's, from /proc/self/fd) must lie inside
// DIR's real path; checking the name before opening would leave a window in which a path
// component could be swapped for a link.
//
// Thread-safety: MediaFile is immutable once open; readAt may run on any thread at once.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace pnx::serve {

// The real path of a media directory (symbolic links resolved, no trailing slash), or
// nullopt when `dir` is not a directory.
std::optional<std::string> mediaRoot(const std::string& dir);

class MediaFile {
 public:
  // The regular file `relative` under `root` (a mediaRoot result), or nullptr when there is
  // none or it resolves outside root.
  static std::shared_ptr<MediaFile> open(const std::string& root, const std::string& relative);

  ~MediaFile();
  MediaFile(const MediaFile&) = delete;
  MediaFile& operator=(const MediaFile&) = delete;

  std::uint64_t size() const { return size_; }
  // Up to `length` bytes from `offset`; the count read, 0 at the end, -1 on an error.
  ssize_t readAt(char* buffer, std::size_t length, std::uint64_t offset) const;

 private:
  MediaFile(int fd, std::uint64_t size) : fd_(fd), size_(size) {}
  int fd_;
  std::uint64_t size_;
};

}  // namespace pnx::serve
