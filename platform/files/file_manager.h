// FileManager: the file operations the system uses, behind one narrow interface.
//
// FileManager::current() is the process's file system: the POSIX backend by default.
// Tests install a FileManagerWrapper subclass (it forwards every call) that overrides
// only the calls it wants to fail, with FileManager::setCurrent().
//
// Errors are values carrying the path: NSCocoaErrorDomain with the platform's codes
// (4 no such file, 513 no permission, 516 file exists, 640 disk full, 512 other), the
// path under NSFilePathErrorKey and the errno as an NSPOSIXErrorDomain underlying error.
// Moves and copies never overwrite: they fail with 516 when the destination exists.
// All operations are thread-safe (they hold no state of their own).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/files/file_handle.h"
#include "platform/foundation/date.h"
#include "platform/foundation/error.h"
#include "platform/foundation/value.h"

namespace pnx {

// The platform's file-protection classes. Kept as an extended attribute
// ("user.pnx.protection") where the file system supports it; POSIX permissions are
// what actually guards a file here.
inline constexpr const char* NSFileProtectionNone = "NSFileProtectionNone";
inline constexpr const char* NSFileProtectionComplete = "NSFileProtectionComplete";
inline constexpr const char* NSFileProtectionCompleteUntilFirstUserAuthentication =
    "NSFileProtectionCompleteUntilFirstUserAuthentication";

struct FileAttributes {
  std::optional<std::string> protection;   // NSFileProtectionKey
  std::optional<mode_t> posixPermissions;  // e.g. 0600, 0700; the umask default otherwise
};

// How fileHandleForUpdating opens a file. The defaults open an existing file, following a
// symbolic link as open(2) does.
struct FileOpenOptions {
  // Create the file when it is missing, with exactly `permissions` (the umask does not
  // narrow them, and the file is never wider than that while it exists).
  bool create = false;
  // With create: fail with 516 (file exists) when anything is at the path already.
  bool exclusive = false;
  // Refuse a symbolic link as the last path component, also a dangling one (O_NOFOLLOW).
  bool followSymbolicLinks = true;
  mode_t permissions = 0600;
};

struct FileInfo {
  std::uint64_t size = 0;
  Date creationDate;  // birth time where the file system records it, else change time
  Date modificationDate;
  bool isDirectory = false;
  mode_t posixPermissions = 0;
  std::optional<std::string> protection;
};

class FileManager {
 public:
  virtual ~FileManager() = default;

  static FileManager& current();
  // Installs a replacement (nullptr restores the POSIX backend). Call during set-up only.
  static void setCurrent(std::shared_ptr<FileManager> manager);
  static std::shared_ptr<FileManager> posix();

  virtual bool fileExists(const std::string& path, bool* isDirectory = nullptr) = 0;
  virtual bool createDirectory(const std::string& path, bool withIntermediates,
                               const FileAttributes& attributes, ErrorPtr* error) = 0;
  // Creates or replaces the file with the given contents (temp file, fsync, rename).
  virtual bool createFile(const std::string& path, const Data& contents,
                          const FileAttributes& attributes, ErrorPtr* error = nullptr) = 0;
  virtual bool moveItem(const std::string& from, const std::string& to, ErrorPtr* error) = 0;
  virtual bool copyItem(const std::string& from, const std::string& to, ErrorPtr* error) = 0;
  // Removes a file, or a directory with everything in it.
  virtual bool removeItem(const std::string& path, ErrorPtr* error) = 0;
  virtual std::optional<FileInfo> attributesOfItem(const std::string& path, ErrorPtr* error) = 0;
  virtual std::optional<Data> contentsOfFile(const std::string& path, ErrorPtr* error) = 0;
  virtual std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& path,
                                                                      ErrorPtr* error) = 0;
  // Opens a file for reading and writing as options say; nullptr (and *error) when it
  // can't. A symbolic link refused by followSymbolicLinks = false is error 512 whose
  // description says so.
  virtual std::unique_ptr<FileHandle> fileHandleForUpdating(const std::string& path,
                                                            const FileOpenOptions& options,
                                                            ErrorPtr* error = nullptr) = 0;
  // Opens an existing file for reading and writing.
  std::unique_ptr<FileHandle> fileHandleForUpdating(const std::string& path,
                                                    ErrorPtr* error = nullptr) {
    return fileHandleForUpdating(path, FileOpenOptions(), error);
  }
};

// Forwards every call to a target; fault fakes derive from it and override what they need.
class FileManagerWrapper : public FileManager {
 public:
  explicit FileManagerWrapper(std::shared_ptr<FileManager> target) : target_(std::move(target)) {}
  FileManager& target() { return *target_; }

  bool fileExists(const std::string& path, bool* isDirectory = nullptr) override {
    return target_->fileExists(path, isDirectory);
  }
  bool createDirectory(const std::string& path, bool withIntermediates,
                       const FileAttributes& attributes, ErrorPtr* error) override {
    return target_->createDirectory(path, withIntermediates, attributes, error);
  }
  bool createFile(const std::string& path, const Data& contents, const FileAttributes& attributes,
                  ErrorPtr* error = nullptr) override {
    return target_->createFile(path, contents, attributes, error);
  }
  bool moveItem(const std::string& from, const std::string& to, ErrorPtr* error) override {
    return target_->moveItem(from, to, error);
  }
  bool copyItem(const std::string& from, const std::string& to, ErrorPtr* error) override {
    return target_->copyItem(from, to, error);
  }
  bool removeItem(const std::string& path, ErrorPtr* error) override {
    return target_->removeItem(path, error);
  }
  std::optional<FileInfo> attributesOfItem(const std::string& path, ErrorPtr* error) override {
    return target_->attributesOfItem(path, error);
  }
  std::optional<Data> contentsOfFile(const std::string& path, ErrorPtr* error) override {
    return target_->contentsOfFile(path, error);
  }
  std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& path,
                                                              ErrorPtr* error) override {
    return target_->contentsOfDirectory(path, error);
  }
  using FileManager::fileHandleForUpdating;
  std::unique_ptr<FileHandle> fileHandleForUpdating(const std::string& path,
                                                    const FileOpenOptions& options,
                                                    ErrorPtr* error = nullptr) override {
    return target_->fileHandleForUpdating(path, options, error);
  }

 private:
  std::shared_ptr<FileManager> target_;
};

// Path helpers (pure string operations, no file system access).
std::string pathByAppendingComponent(const std::string& directory, const std::string& component);
std::string lastPathComponent(const std::string& path);
std::string pathByDeletingLastComponent(const std::string& path);

}  // namespace pnx
