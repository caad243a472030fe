// The POSIX backend of FileManager: the default file system of the process.
//
// Whole-file writes go through a temporary file in the same directory, fsync and rename,
// so a reader sees the old contents or the new ones, never a torn file. Moves use
// renameat2(RENAME_NOREPLACE) and copies create with O_EXCL, so neither can replace an
// existing item, even when two processes race for the same destination.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "platform/files/file_manager.h"

namespace pnx {
namespace {

constexpr const char* kProtectionAttribute = "user.pnx.protection";
constexpr const char* kSourcePathKey = "NSSourceFilePathErrorKey";
constexpr const char* kDestinationPathKey = "NSDestinationFilePath";

enum class Operation { Read, Write, Move, Copy, Remove };

std::int64_t codeForErrno(int err) {
  switch (err) {
    case ENOENT:
      return NSFileNoSuchFileError;
    case EACCES:
    case EPERM:
      return NSFileWriteNoPermissionError;
    case EEXIST:
    case ENOTEMPTY:
      return NSFileWriteFileExistsError;
    case ENOSPC:
    case EDQUOT:
      return NSFileWriteOutOfSpaceError;
    case EROFS:
      return NSFileWriteVolumeReadOnlyError;
    default:
      return NSFileWriteUnknownError;
  }
}

std::string quoted(const std::string& path) {
  std::string name = lastPathComponent(path);
  return "\u201c" + (name.empty() ? path : name) + "\u201d";
}

std::string folderOf(const std::string& path) {
  std::string folder = pathByDeletingLastComponent(path);
  return folder.empty() ? "." : folder;
}

std::string readMessage(std::int64_t code, const std::string& path) {
  std::string file = "The file " + quoted(path) + " couldn\u2019t be opened";
  if (code == NSFileNoSuchFileError) return file + " because there is no such file.";
  if (code == NSFileWriteNoPermissionError)
    return file + " because you don\u2019t have permission to view it.";
  return file + ".";
}

std::string writeMessage(std::int64_t code, const std::string& path) {
  std::string file = "The file " + quoted(path) + " couldn\u2019t be saved";
  switch (code) {
    case NSFileNoSuchFileError:
      return file + " because the folder " + quoted(folderOf(path)) + " doesn\u2019t exist.";
    case NSFileWriteNoPermissionError:
      return "You don\u2019t have permission to save the file " + quoted(path) + " in the folder " +
             quoted(folderOf(path)) + ".";
    case NSFileWriteFileExistsError:
      return file + " because a file with the same name already exists.";
    case NSFileWriteOutOfSpaceError:
      return file + " because the volume is out of space.";
    case NSFileWriteVolumeReadOnlyError:
      return file + " because the volume is read only.";
    default:
      return file + ".";
  }
}

std::string transferMessage(std::int64_t code, const char* verb, const std::string& from,
                            const std::string& to) {
  std::string item = quoted(from) + " couldn\u2019t be " + verb;
  std::string target = item + " to " + quoted(folderOf(to));
  switch (code) {
    case NSFileNoSuchFileError:
      return target +
             " because either the former doesn\u2019t exist, or the folder containing the latter "
             "doesn\u2019t exist.";
    case NSFileWriteNoPermissionError:
      return item + " because you don\u2019t have permission to access " + quoted(folderOf(to)) +
             ".";
    case NSFileWriteFileExistsError:
      return target + " because an item with the same name already exists.";
    case NSFileWriteOutOfSpaceError:
      return target + " because the volume is out of space.";
    case NSFileWriteVolumeReadOnlyError:
      return target + " because the volume is read only.";
    default:
      return target + ".";
  }
}

std::string removeMessage(std::int64_t code, const std::string& path) {
  std::string item = quoted(path) + " couldn\u2019t be removed";
  if (code == NSFileNoSuchFileError) return item + " because it doesn\u2019t exist.";
  if (code == NSFileWriteNoPermissionError)
    return item + " because you don\u2019t have permission to access it.";
  return item + ".";
}

std::string errnoText(int err) {
  const char* text = strerrordesc_np(err);
  return text ? text : "Unknown error " + std::to_string(err);
}

// Fills *error (when given) and returns false, so failures read `return fail(...)`.
// `because` replaces the usual end of the message ("because ...") when given.
bool fail(ErrorPtr* error, int err, Operation operation, const std::string& path,
          const std::string& destination = {}, const char* because = nullptr) {
  if (!error) return false;
  std::int64_t code = codeForErrno(err);
  std::string message;
  switch (operation) {
    case Operation::Read:
      message = readMessage(code, path);
      break;
    case Operation::Write:
      message = writeMessage(code, path);
      break;
    case Operation::Move:
      message = transferMessage(code, "moved", path, destination);
      break;
    case Operation::Copy:
      message = transferMessage(code, "copied", path, destination);
      break;
    case Operation::Remove:
      message = removeMessage(code, path);
      break;
  }
  if (because) message = "The file " + quoted(path) + " couldn\u2019t be opened " + because;
  ObjectPtr underlying = Error::make(NSPOSIXErrorDomain, err,
                                     Value::dict({{NSLocalizedDescriptionKey, errnoText(err)}}));
  Dictionary info;
  info[Value(NSLocalizedDescriptionKey)] = Value(message);
  info[Value(NSFilePathErrorKey)] = Value(path);
  info[Value(NSUnderlyingErrorKey)] = Value(underlying);
  if (operation == Operation::Move || operation == Operation::Copy) {
    info[Value(kSourcePathKey)] = Value(path);
    info[Value(kDestinationPathKey)] = Value(destination);
  }
  *error = Error::make(NSCocoaErrorDomain, code, Value(std::move(info)));
  return false;
}

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  // Hands the descriptor over; it is no longer closed here.
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closes now and reports close's own failure (a deferred write error on some file systems).
  int close() {
    int result = ::close(fd_);
    fd_ = -1;
    return result == 0 ? 0 : errno;
  }

 private:
  int fd_;
};

// Returns 0 or the errno of the failed write.
int writeAll(int fd, const void* bytes, std::size_t length) {
  const char* next = static_cast<const char*>(bytes);
  while (length > 0) {
    ssize_t written = ::write(fd, next, length);
    if (written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    next += written;
    length -= static_cast<std::size_t>(written);
  }
  return 0;
}

int fsyncDirectory(const std::string& directory) {
  Descriptor fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0) return errno;
  return fsync(fd.get()) == 0 ? 0 : errno;
}

// Best effort: file systems without user attributes simply don't record protection.
int setProtection(const std::string& path, int fd, const std::optional<std::string>& protection) {
  if (!protection) return 0;
  int result =
      fd >= 0
          ? fsetxattr(fd, kProtectionAttribute, protection->data(), protection->size(), 0)
          : setxattr(path.c_str(), kProtectionAttribute, protection->data(), protection->size(), 0);
  if (result == 0 || errno == ENOTSUP || errno == EOPNOTSUPP) return 0;
  return errno;
}

std::optional<std::string> readProtection(const std::string& path) {
  char buffer[256];
  ssize_t length = getxattr(path.c_str(), kProtectionAttribute, buffer, sizeof buffer);
  if (length < 0) return std::nullopt;
  return std::string(buffer, static_cast<std::size_t>(length));
}

bool isDirectoryAt(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Entry names without "." and "..", sorted. Returns 0 or an errno.
int listDirectory(const std::string& path, std::vector<std::string>* names) {
  DIR* directory = opendir(path.c_str());
  if (!directory) return errno;
  errno = 0;
  while (dirent* entry = readdir(directory)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names->push_back(std::move(name));
  }
  int err = errno;
  closedir(directory);
  std::sort(names->begin(), names->end());
  return err;
}

int removeTree(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return errno;
  if (!S_ISDIR(info.st_mode)) return unlink(path.c_str()) == 0 ? 0 : errno;
  std::vector<std::string> names;
  if (int err = listDirectory(path, &names)) return err;
  for (const auto& name : names) {
    if (int err = removeTree(path + "/" + name)) return err;
  }
  return rmdir(path.c_str()) == 0 ? 0 : errno;
}

// Copies in the kernel where it can (copy_file_range: no trip through our memory, and a
// shared extent on file systems that clone), else through a buffer.
int copyFileContents(int from, int to) {
  for (bool any = false;;) {
    ssize_t copied = copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
    if (copied > 0) {
      any = true;
      continue;
    }
    // Nothing at all may also mean a file whose size the kernel does not know (procfs).
    if (copied == 0) {
      if (any) return 0;
      break;
    }
    if (errno == EINTR) continue;
    // Not offered here (another file system, an older kernel): copy what is left by hand.
    if (errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP || errno == EINVAL) break;
    return errno;
  }
  std::vector<char> buffer(128 * 1024);
  for (;;) {
    ssize_t got = read(from, buffer.data(), buffer.size());
    if (got < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (got == 0) return 0;
    if (int err = writeAll(to, buffer.data(), static_cast<std::size_t>(got))) return err;
  }
}

int copyRegularFile(const std::string& from, const std::string& to, mode_t mode) {
  Descriptor source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (source.get() < 0) return errno;
  Descriptor target(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (target.get() < 0) return errno;
  int err = copyFileContents(source.get(), target.get());
  if (!err && fchmod(target.get(), mode & 07777) != 0) err = errno;
  int closeErr = target.close();
  if (!err) err = closeErr;
  if (err) unlink(to.c_str());
  return err;
}

int copyTree(const std::string& from, const std::string& to) {
  struct stat info {};
  if (lstat(from.c_str(), &info) != 0) return errno;
  if (S_ISREG(info.st_mode)) return copyRegularFile(from, to, info.st_mode);
  if (S_ISLNK(info.st_mode)) {
    std::vector<char> target(static_cast<std::size_t>(info.st_size) + 1);
    ssize_t length = readlink(from.c_str(), target.data(), target.size());
    if (length < 0) return errno;
    std::string link(target.data(), static_cast<std::size_t>(length));
    return symlink(link.c_str(), to.c_str()) == 0 ? 0 : errno;
  }
  if (!S_ISDIR(info.st_mode)) return ENOTSUP;
  if (mkdir(to.c_str(), 0700) != 0) return errno;
  std::vector<std::string> names;
  int err = listDirectory(from, &names);
  for (std::size_t i = 0; !err && i < names.size(); ++i) {
    err = copyTree(from + "/" + names[i], to + "/" + names[i]);
  }
  if (!err && chmod(to.c_str(), info.st_mode & 07777) != 0) err = errno;
  if (err) removeTree(to);  // the destination is ours: mkdir just created it
  return err;
}

Date dateOf(const statx_timestamp& stamp) {
  return Date(static_cast<double>(stamp.tv_sec) + stamp.tv_nsec / 1e9);
}

// Everything but the protection, which lives in an extended attribute.
FileInfo fileInfoOf(const struct statx& status) {
  FileInfo info;
  info.size = status.stx_size;
  info.creationDate = dateOf((status.stx_mask & STATX_BTIME) ? status.stx_btime : status.stx_ctime);
  info.modificationDate = dateOf(status.stx_mtime);
  info.isDirectory = S_ISDIR(status.stx_mode);
  info.posixPermissions = status.stx_mode & 07777;
  info.fileSystemNumber = makedev(status.stx_dev_major, status.stx_dev_minor);
  info.fileSystemFileNumber = status.stx_ino;
  return info;
}

class PosixFileLock final : public FileLock {
 public:
  explicit PosixFileLock(int fd) : fd_(fd) {}
  ~PosixFileLock() override { ::close(fd_); }  // closing the last descriptor unlocks

 private:
  int fd_;
};

class PosixFileHandle final : public FileHandle {
 public:
  PosixFileHandle(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  ~PosixFileHandle() override { close(); }

  std::uint64_t seekToEnd() override {
    off_t end = lseek(fd_.load(), 0, SEEK_END);
    return end < 0 ? 0 : static_cast<std::uint64_t>(end);
  }

  bool write(const void* bytes, std::size_t length, ErrorPtr* error) override {
    if (int err = writeAll(fd_.load(), bytes, length)) {
      return fail(error, err, Operation::Write, path_);
    }
    return true;
  }

  std::uint64_t offset() const override {
    off_t position = lseek(fd_.load(), 0, SEEK_CUR);
    return position < 0 ? 0 : static_cast<std::uint64_t>(position);
  }

  bool synchronize(ErrorPtr* error) override {
    if (fsync(fd_.load()) != 0) return fail(error, errno, Operation::Write, path_);
    return true;
  }

  void close() override {
    int fd = fd_.exchange(-1);
    if (fd >= 0) ::close(fd);
  }

  std::optional<FileInfo> attributes(ErrorPtr* error) const override {
    struct statx status {};
    if (statx(fd_.load(), "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
      fail(error, errno, Operation::Read, path_);
      return std::nullopt;
    }
    FileInfo info = fileInfoOf(status);
    char buffer[256];
    ssize_t length = fgetxattr(fd_.load(), kProtectionAttribute, buffer, sizeof buffer);
    if (length >= 0) info.protection = std::string(buffer, static_cast<std::size_t>(length));
    return info;
  }

 private:
  std::atomic<int> fd_;
  std::string path_;
};

class PosixFileManager final : public FileManager {
 public:
  bool fileExists(const std::string& path, bool* isDirectory) override {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return false;
    if (isDirectory) *isDirectory = S_ISDIR(info.st_mode);
    return true;
  }

  bool createDirectory(const std::string& path, bool withIntermediates,
                       const FileAttributes& attributes, ErrorPtr* error) override {
    if (path.empty()) return fail(error, ENOENT, Operation::Write, path);
    std::vector<std::string> created;
    // Each directory is made with its final permissions (plus the owner's own access until
    // its children exist), so none is ever open to others, not even for a moment.
    mode_t mode = attributes.posixPermissions ? (*attributes.posixPermissions | S_IRWXU) : 0777;
    int err =
        withIntermediates ? makeDirectories(path, mode, &created) : makeOne(path, mode, &created);
    // Attributes go on deepest first, so that restrictive permissions on a parent can't
    // stop us from reaching its children.
    for (auto it = created.rbegin(); !err && it != created.rend(); ++it) {
      err = applyAttributes(*it, attributes);
    }
    if (err) {
      for (auto it = created.rbegin(); it != created.rend(); ++it) rmdir(it->c_str());
      return fail(error, err, Operation::Write, path);
    }
    return true;
  }

  bool createFile(const std::string& path, const Data& contents, const FileAttributes& attributes,
                  ErrorPtr* error) override {
    std::string directory = folderOf(path);
    std::string temporary;
    Descriptor fd(createTemporary(directory, attributes.posixPermissions, &temporary));
    if (fd.get() < 0) return fail(error, errno, Operation::Write, path);
    int err = writeAll(fd.get(), contents.data(), contents.size());
    if (!err) err = setProtection(temporary, fd.get(), attributes.protection);
    if (!err && fsync(fd.get()) != 0) err = errno;
    int closeErr = fd.close();
    if (!err) err = closeErr;
    if (!err && rename(temporary.c_str(), path.c_str()) != 0) err = errno;
    if (err) {
      unlink(temporary.c_str());
      return fail(error, err, Operation::Write, path);
    }
    // The file is in place; a failed directory sync only weakens durability.
    fsyncDirectory(directory);
    return true;
  }

  bool moveItem(const std::string& from, const std::string& to, ErrorPtr* error) override {
    int err = renameNoReplace(from, to);
    if (err == EXDEV) {
      err = copyTree(from, to);
      if (!err) err = removeTree(from);
    }
    if (err) return fail(error, err, Operation::Move, from, to);
    return true;
  }

  bool copyItem(const std::string& from, const std::string& to, ErrorPtr* error) override {
    if (int err = copyTree(from, to)) return fail(error, err, Operation::Copy, from, to);
    return true;
  }

  bool removeItem(const std::string& path, ErrorPtr* error) override {
    if (int err = removeTree(path)) return fail(error, err, Operation::Remove, path);
    return true;
  }

  std::optional<FileInfo> attributesOfItem(const std::string& path, ErrorPtr* error) override {
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
      fail(error, errno, Operation::Read, path);
      return std::nullopt;
    }
    FileInfo info = fileInfoOf(status);
    info.protection = readProtection(path);
    return info;
  }

  std::optional<Data> contentsOfFile(const std::string& path, ErrorPtr* error) override {
    Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    Data contents;
    int err = fd.get() < 0 ? errno : readAll(fd.get(), &contents);
    if (err) {
      fail(error, err, Operation::Read, path);
      return std::nullopt;
    }
    return contents;
  }

  std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& path,
                                                              ErrorPtr* error) override {
    std::vector<std::string> names;
    if (int err = listDirectory(path, &names)) {
      fail(error, err, Operation::Read, path);
      return std::nullopt;
    }
    return names;
  }

  using FileManager::fileHandleForUpdating;
  std::unique_ptr<FileHandle> fileHandleForUpdating(const std::string& path,
                                                    const FileOpenOptions& options,
                                                    ErrorPtr* error) override {
    int fd = openForUpdating(path, options);
    if (fd < 0) {
      int err = errno;
      bool refusedLink = err == ELOOP && !options.followSymbolicLinks;
      fail(error, err, options.create ? Operation::Write : Operation::Read, path, {},
           refusedLink ? "because it is a symbolic link." : nullptr);
      return nullptr;
    }
    return std::make_unique<PosixFileHandle>(fd, path);
  }

  std::unique_ptr<FileHandle> fileHandleForAppending(const std::string& path,
                                                     const std::optional<FileAttributes>& creating,
                                                     ErrorPtr* error) override {
    // O_NONBLOCK keeps a FIFO planted at the path from blocking the open; it means
    // nothing for the regular file that is then required.
    const int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    // A file removed between the two opens below is created again; a few rounds suffice.
    for (int attempt = 0; attempt < 8; ++attempt) {
      if (creating) {
        const mode_t mode = creating->posixPermissions.value_or(0644);
        Descriptor fd(open(path.c_str(), flags | O_CREAT | O_EXCL, mode));
        if (fd.get() >= 0) {
          // Only narrowed by the umask so far; never wider than asked for.
          int err = 0;
          if (creating->posixPermissions && fchmod(fd.get(), mode) != 0) err = errno;
          if (!err) err = setProtection(path, fd.get(), creating->protection);
          if (err) {
            unlink(path.c_str());
            fail(error, err, Operation::Write, path);
            return nullptr;
          }
          return appendingHandle(fd, path, error);
        }
        if (errno != EEXIST) {
          fail(error, errno, Operation::Write, path);
          return nullptr;
        }
      }
      Descriptor fd(open(path.c_str(), flags));
      if (fd.get() >= 0) return appendingHandle(fd, path, error);
      if (errno != ENOENT || !creating) {
        fail(error, errno, Operation::Read, path);
        return nullptr;
      }
    }
    fail(error, ENOENT, Operation::Write, path);
    return nullptr;
  }

  std::unique_ptr<FileLock> lockItem(const std::string& path, ErrorPtr* error) override {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      fail(error, errno, Operation::Read, path);
      return nullptr;
    }
    while (flock(fd, LOCK_EX) != 0) {
      if (errno == EINTR) continue;
      int err = errno;
      ::close(fd);
      fail(error, err, Operation::Read, path);
      return nullptr;
    }
    return std::make_unique<PosixFileLock>(fd);
  }

 private:
  // Takes the descriptor over when it is a regular file, and gives blocking writes back.
  static std::unique_ptr<FileHandle> appendingHandle(Descriptor& fd, const std::string& path,
                                                     ErrorPtr* error) {
    struct stat info {};
    if (fstat(fd.get(), &info) != 0) {
      fail(error, errno, Operation::Read, path);
      return nullptr;
    }
    if (!S_ISREG(info.st_mode)) {
      fail(error, S_ISDIR(info.st_mode) ? EISDIR : EINVAL, Operation::Read, path);
      return nullptr;
    }
    if (fcntl(fd.get(), F_SETFL, O_APPEND) != 0) {
      fail(error, errno, Operation::Read, path);
      return nullptr;
    }
    return std::make_unique<PosixFileHandle>(fd.release(), path);
  }

  // mkdir for one directory; an existing item is an error, as the platform has it.
  static int makeOne(const std::string& path, mode_t mode, std::vector<std::string>* created) {
    if (mkdir(path.c_str(), mode) != 0) return errno;
    created->push_back(path);
    return 0;
  }

  // mkdir -p: existing directories on the way (and at the end) are fine.
  static int makeDirectories(const std::string& path, mode_t mode,
                             std::vector<std::string>* created) {
    std::string target = path.substr(0, path.find_last_not_of('/') + 1);
    if (target.empty()) return 0;  // "/" exists
    std::size_t slash = 0;
    while (slash != std::string::npos) {
      slash = target.find('/', slash + 1);
      std::string prefix = target.substr(0, slash);
      if (prefix.back() == '/') continue;  // "a//b"
      if (mkdir(prefix.c_str(), mode) == 0) {
        created->push_back(prefix);
        continue;
      }
      if (errno != EEXIST) return errno;
      if (!isDirectoryAt(prefix)) return slash == std::string::npos ? EEXIST : ENOTDIR;
    }
    return 0;
  }

  // Narrows a new directory to the exact permissions asked for, where the umask or the
  // owner's temporary access made them differ.
  static int applyAttributes(const std::string& path, const FileAttributes& attributes) {
    if (int err = setProtection(path, -1, attributes.protection)) return err;
    if (!attributes.posixPermissions) return 0;
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return errno;
    if ((info.st_mode & 07777) == *attributes.posixPermissions) return 0;
    return chmod(path.c_str(), *attributes.posixPermissions) == 0 ? 0 : errno;
  }

  // Opens a new, uniquely named, still empty file beside the target, with exactly the
  // permissions asked for (without any: 0644 narrowed by the umask).
  static int createTemporary(const std::string& directory, std::optional<mode_t> permissions,
                             std::string* path) {
    static std::atomic<unsigned> counter{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
      *path = directory + "/.pnx-tmp-" + std::to_string(getpid()) + "-" +
              std::to_string(counter.fetch_add(1));
      int fd =
          createExclusive(*path, O_WRONLY, permissions.value_or(0644), permissions.has_value());
      if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
  }

  // open(O_CREAT | O_EXCL) with exactly `mode`: when the umask narrowed it and exact is
  // asked for, the still empty file is widened to it at once. -1 and errno on failure.
  static int createExclusive(const std::string& path, int flags, mode_t mode, bool exact) {
    int fd = open(path.c_str(), flags | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0 || !exact) return fd;
    struct stat info {};
    if (fstat(fd, &info) == 0 && (info.st_mode & 07777) == (mode & 07777)) return fd;
    if (fchmod(fd, mode & 07777) == 0) return fd;
    int err = errno;
    ::close(fd);
    unlink(path.c_str());
    errno = err;
    return -1;
  }

  // Opens, or creates, the file for reading and writing as options say. An open-or-create
  // first tries to create, so that a file it makes always gets exact permissions; when the
  // file exists it is opened as it is. -1 and errno on failure.
  static int openForUpdating(const std::string& path, const FileOpenOptions& options) {
    int flags = O_RDWR | O_CLOEXEC | (options.followSymbolicLinks ? 0 : O_NOFOLLOW);
    if (!options.create) return open(path.c_str(), flags);
    // A file removed between the two calls is created on the next round; a dangling link
    // that is followed fails with ENOENT after a few.
    for (int attempt = 0; attempt < 4; ++attempt) {
      int fd = createExclusive(path, flags, options.permissions, true);
      if (fd >= 0 || errno != EEXIST || options.exclusive) return fd;
      fd = open(path.c_str(), flags);
      if (fd >= 0 || errno != ENOENT) return fd;
    }
    return -1;
  }

  static int renameNoReplace(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    int err = errno;
    if (err != EINVAL && err != ENOSYS) return err;
    // File systems without RENAME_NOREPLACE: check first (racy, but still never silent).
    struct stat info {};
    if (lstat(to.c_str(), &info) == 0) return EEXIST;
    return rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
  }

  static int readAll(int fd, Data* contents) {
    struct stat info {};
    if (fstat(fd, &info) == 0 && info.st_size > 0) {
      contents->reserve(static_cast<std::size_t>(info.st_size));
    }
    std::uint8_t buffer[64 * 1024];
    for (;;) {
      ssize_t got = read(fd, buffer, sizeof buffer);
      if (got < 0) {
        if (errno == EINTR) continue;
        return errno;
      }
      if (got == 0) return 0;
      contents->insert(contents->end(), buffer, buffer + got);
    }
  }
};

}  // namespace

std::shared_ptr<FileManager> FileManager::posix() {
  static const std::shared_ptr<FileManager> manager = std::make_shared<PosixFileManager>();
  return manager;
}

}  // namespace pnx
