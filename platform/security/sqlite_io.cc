// The "pnx" VFS: a shim over SQLite's default VFS whose files hand their reads, writes,
// syncs and locks to the installed SQLiteIO, and forward every other call unchanged.
#include "platform/security/sqlite_io.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <string>

namespace pnx {
namespace {

constexpr const char* kVfsName = "pnx";

// The installed calls. Never destroyed: connections may still close while the process
// exits.
std::mutex& installedMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}
std::shared_ptr<SQLiteIO>& installed() {
  static auto* io = new std::shared_ptr<SQLiteIO>;
  return *io;
}
// Whether anything is installed, so that plain forwarding takes no lock.
std::atomic<bool> anyInstalled{false};

SQLiteIO& forwarding() {
  static auto* io = new SQLiteIO;
  return *io;
}

// The current calls, kept alive for the duration of one call.
std::shared_ptr<SQLiteIO> currentIO() {
  if (!anyInstalled.load(std::memory_order_acquire)) return nullptr;
  std::lock_guard lock(installedMutex());
  return installed();
}

// Our file: the header SQLite sees, followed in the same allocation by the default VFS's
// own file (szOsFile covers both).
struct ShimFile {
  sqlite3_file base;
  sqlite3_file* real;
  std::string* path;
};

ShimFile* shimOf(sqlite3_file* file) {
  return reinterpret_cast<ShimFile*>(file);
}

sqlite3_file* realOf(sqlite3_file* file) {
  return shimOf(file)->real;
}

sqlite3_vfs* underlying(sqlite3_vfs* vfs) {
  return static_cast<sqlite3_vfs*>(vfs->pAppData);
}

template <typename Call>
int throughIO(sqlite3_file* file, Call call) {
  ShimFile* shim = shimOf(file);
  SQLiteIO::File view{*shim->path, shim->real};
  std::shared_ptr<SQLiteIO> io = currentIO();
  return call(io ? *io : forwarding(), view);
}

int shimClose(sqlite3_file* file) {
  ShimFile* shim = shimOf(file);
  int rc = shim->real->pMethods ? shim->real->pMethods->xClose(shim->real) : SQLITE_OK;
  delete shim->path;
  shim->path = nullptr;
  return rc;
}

int shimRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
  return throughIO(file, [&](SQLiteIO& io, const SQLiteIO::File& view) {
    return io.read(view, buffer, amount, offset);
  });
}

int shimWrite(sqlite3_file* file, const void* bytes, int amount, sqlite3_int64 offset) {
  return throughIO(file, [&](SQLiteIO& io, const SQLiteIO::File& view) {
    return io.write(view, bytes, amount, offset);
  });
}

int shimTruncate(sqlite3_file* file, sqlite3_int64 size) {
  return throughIO(
      file, [&](SQLiteIO& io, const SQLiteIO::File& view) { return io.truncate(view, size); });
}

int shimSync(sqlite3_file* file, int flags) {
  return throughIO(file,
                   [&](SQLiteIO& io, const SQLiteIO::File& view) { return io.sync(view, flags); });
}

int shimLock(sqlite3_file* file, int level) {
  return throughIO(file,
                   [&](SQLiteIO& io, const SQLiteIO::File& view) { return io.lock(view, level); });
}

int shimShmLock(sqlite3_file* file, int offset, int count, int flags) {
  return throughIO(file, [&](SQLiteIO& io, const SQLiteIO::File& view) {
    return io.shmLock(view, offset, count, flags);
  });
}

int shimFileSize(sqlite3_file* file, sqlite3_int64* size) {
  return realOf(file)->pMethods->xFileSize(realOf(file), size);
}
int shimUnlock(sqlite3_file* file, int level) {
  return realOf(file)->pMethods->xUnlock(realOf(file), level);
}
int shimCheckReservedLock(sqlite3_file* file, int* reserved) {
  return realOf(file)->pMethods->xCheckReservedLock(realOf(file), reserved);
}
int shimFileControl(sqlite3_file* file, int operation, void* argument) {
  return realOf(file)->pMethods->xFileControl(realOf(file), operation, argument);
}
int shimSectorSize(sqlite3_file* file) {
  return realOf(file)->pMethods->xSectorSize(realOf(file));
}
int shimDeviceCharacteristics(sqlite3_file* file) {
  return realOf(file)->pMethods->xDeviceCharacteristics(realOf(file));
}
int shimShmMap(sqlite3_file* file, int region, int size, int extend, void volatile** memory) {
  return realOf(file)->pMethods->xShmMap(realOf(file), region, size, extend, memory);
}
void shimShmBarrier(sqlite3_file* file) {
  realOf(file)->pMethods->xShmBarrier(realOf(file));
}
int shimShmUnmap(sqlite3_file* file, int deleteFlag) {
  return realOf(file)->pMethods->xShmUnmap(realOf(file), deleteFlag);
}
int shimFetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** pointer) {
  return realOf(file)->pMethods->xFetch(realOf(file), offset, amount, pointer);
}
int shimUnfetch(sqlite3_file* file, sqlite3_int64 offset, void* pointer) {
  return realOf(file)->pMethods->xUnfetch(realOf(file), offset, pointer);
}

// One method table per version, so that a file offers exactly the methods its real file has.
const sqlite3_io_methods* methodsFor(int version) {
  static const auto tables = [] {
    std::array<sqlite3_io_methods, 3> all{};
    for (int i = 0; i < 3; ++i) {
      sqlite3_io_methods& methods = all[static_cast<std::size_t>(i)];
      methods.iVersion = i + 1;
      methods.xClose = shimClose;
      methods.xRead = shimRead;
      methods.xWrite = shimWrite;
      methods.xTruncate = shimTruncate;
      methods.xSync = shimSync;
      methods.xFileSize = shimFileSize;
      methods.xLock = shimLock;
      methods.xUnlock = shimUnlock;
      methods.xCheckReservedLock = shimCheckReservedLock;
      methods.xFileControl = shimFileControl;
      methods.xSectorSize = shimSectorSize;
      methods.xDeviceCharacteristics = shimDeviceCharacteristics;
      if (i >= 1) {
        methods.xShmMap = shimShmMap;
        methods.xShmLock = shimShmLock;
        methods.xShmBarrier = shimShmBarrier;
        methods.xShmUnmap = shimShmUnmap;
      }
      if (i >= 2) {
        methods.xFetch = shimFetch;
        methods.xUnfetch = shimUnfetch;
      }
    }
    return all;
  }();
  return &tables[static_cast<std::size_t>(std::clamp(version, 1, 3) - 1)];
}

int shimOpen(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  ShimFile* shim = shimOf(file);
  shim->base.pMethods = nullptr;
  shim->real = reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + sizeof(ShimFile));
  shim->path = nullptr;
  sqlite3_vfs* real = underlying(vfs);
  int rc = real->xOpen(real, name, shim->real, flags, outFlags);
  if (rc != SQLITE_OK) {
    // SQLite closes only files whose pMethods is set; ours stays unset, so close here.
    if (shim->real->pMethods) shim->real->pMethods->xClose(shim->real);
    return rc;
  }
  shim->path = new std::string(name ? name : "");
  shim->base.pMethods = methodsFor(shim->real->pMethods->iVersion);
  return SQLITE_OK;
}

sqlite3_vfs* registeredVfs() {
  static sqlite3_vfs* vfs = [] {
    sqlite3_vfs* real = sqlite3_vfs_find(nullptr);
    auto* shim = new sqlite3_vfs{};  // registered for the life of the process
    shim->iVersion = std::min(real->iVersion, 3);
    shim->szOsFile = static_cast<int>(sizeof(ShimFile)) + real->szOsFile;
    shim->mxPathname = real->mxPathname;
    shim->zName = kVfsName;
    shim->pAppData = real;
    shim->xOpen = shimOpen;
    shim->xDelete = [](sqlite3_vfs* v, const char* name, int syncDir) {
      return underlying(v)->xDelete(underlying(v), name, syncDir);
    };
    shim->xAccess = [](sqlite3_vfs* v, const char* name, int flags, int* result) {
      return underlying(v)->xAccess(underlying(v), name, flags, result);
    };
    shim->xFullPathname = [](sqlite3_vfs* v, const char* name, int size, char* out) {
      return underlying(v)->xFullPathname(underlying(v), name, size, out);
    };
    shim->xDlOpen = [](sqlite3_vfs* v, const char* name) {
      return underlying(v)->xDlOpen(underlying(v), name);
    };
    shim->xDlError = [](sqlite3_vfs* v, int size, char* out) {
      underlying(v)->xDlError(underlying(v), size, out);
    };
    shim->xDlSym = [](sqlite3_vfs* v, void* handle, const char* symbol) {
      return underlying(v)->xDlSym(underlying(v), handle, symbol);
    };
    shim->xDlClose = [](sqlite3_vfs* v, void* handle) {
      underlying(v)->xDlClose(underlying(v), handle);
    };
    shim->xRandomness = [](sqlite3_vfs* v, int size, char* out) {
      return underlying(v)->xRandomness(underlying(v), size, out);
    };
    shim->xSleep = [](sqlite3_vfs* v, int microseconds) {
      return underlying(v)->xSleep(underlying(v), microseconds);
    };
    shim->xCurrentTime = [](sqlite3_vfs* v, double* now) {
      return underlying(v)->xCurrentTime(underlying(v), now);
    };
    shim->xGetLastError = [](sqlite3_vfs* v, int size, char* out) {
      return underlying(v)->xGetLastError(underlying(v), size, out);
    };
    if (shim->iVersion >= 2) {
      shim->xCurrentTimeInt64 = [](sqlite3_vfs* v, sqlite3_int64* now) {
        return underlying(v)->xCurrentTimeInt64(underlying(v), now);
      };
    }
    if (shim->iVersion >= 3) {
      shim->xSetSystemCall = [](sqlite3_vfs* v, const char* name, sqlite3_syscall_ptr call) {
        return underlying(v)->xSetSystemCall(underlying(v), name, call);
      };
      shim->xGetSystemCall = [](sqlite3_vfs* v, const char* name) {
        return underlying(v)->xGetSystemCall(underlying(v), name);
      };
      shim->xNextSystemCall = [](sqlite3_vfs* v, const char* name) {
        return underlying(v)->xNextSystemCall(underlying(v), name);
      };
    }
    sqlite3_vfs_register(shim, 0);
    return shim;
  }();
  return vfs;
}

}  // namespace

int SQLiteIO::read(const File& file, void* buffer, int amount, std::int64_t offset) {
  return file.real->pMethods->xRead(file.real, buffer, amount, offset);
}

int SQLiteIO::write(const File& file, const void* bytes, int amount, std::int64_t offset) {
  return file.real->pMethods->xWrite(file.real, bytes, amount, offset);
}

int SQLiteIO::truncate(const File& file, std::int64_t size) {
  return file.real->pMethods->xTruncate(file.real, size);
}

int SQLiteIO::sync(const File& file, int flags) {
  return file.real->pMethods->xSync(file.real, flags);
}

int SQLiteIO::lock(const File& file, int level) {
  return file.real->pMethods->xLock(file.real, level);
}

int SQLiteIO::shmLock(const File& file, int offset, int count, int flags) {
  return file.real->pMethods->xShmLock(file.real, offset, count, flags);
}

void SQLiteIO::setCurrent(std::shared_ptr<SQLiteIO> io) {
  std::lock_guard lock(installedMutex());
  anyInstalled.store(io != nullptr, std::memory_order_release);
  installed() = std::move(io);
}

const char* SQLiteIO::vfsName() {
  return registeredVfs()->zName;
}

}  // namespace pnx
