// FileHandle: an open file that the library appends to (the log file). FileManager opens
// handles; the log hands its current one out, and a host may give it one of its own.
//
// Thread-safety: a handle is not locked; its owner serialises the calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/error.h"
#include "platform/foundation/export.h"
#include "platform/foundation/value.h"

namespace pnx {

struct FileInfo;  // file_manager.h

class PNX_EXPORT FileHandle {
 public:
  virtual ~FileHandle() = default;
  virtual std::uint64_t seekToEnd() = 0;
  // Writes all bytes; false (and *error) on failure.
  virtual bool write(const void* bytes, std::size_t length, ErrorPtr* error = nullptr) = 0;
  bool write(const Data& data, ErrorPtr* error = nullptr) {
    return write(data.data(), data.size(), error);
  }
  bool write(const std::string& text, ErrorPtr* error = nullptr) {
    return write(text.data(), text.size(), error);
  }
  // Bytes from the start of the file to the current position.
  virtual std::uint64_t offset() const = 0;
  virtual bool synchronize(ErrorPtr* error = nullptr) = 0;  // fsync
  virtual void close() = 0;
  // The open file's attributes, wherever it has been moved since it was opened.
  virtual std::optional<FileInfo> attributes(ErrorPtr* error = nullptr) const = 0;
};

// An advisory lock on a file or directory, held until the object goes away. Holders of the
// lock on the same item, in this process or another, take turns; nothing else is kept out.
class PNX_EXPORT FileLock {
 public:
  virtual ~FileLock() = default;
};

}  // namespace pnx
