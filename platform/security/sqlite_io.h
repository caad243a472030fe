// SQLiteIO: the file calls SQLite makes for every database SQLiteDatabase opens (reads,
// writes, syncs and locks of the database, its write-ahead log and its shared-memory
// index), behind one narrow interface, so that tests can make a store's disk fail.
//
// Every SQLiteDatabase opens its file through a VFS ("pnx") that hands each of these calls
// to the installed SQLiteIO. The base class forwards each call to the operating system's
// own VFS unchanged; a fault fake derives from it and overrides only the call it wants to
// fail, returning an SQLite result code instead (SQLITE_FULL for a full disk,
// SQLITE_IOERR_WRITE, SQLITE_IOERR_FSYNC for a commit whose sync fails, SQLITE_BUSY for a
// lock another process holds). Connections already open follow the change at once.
//
//   class FullDisk : public SQLiteIO {
//     int write(const File&, const void*, int, std::int64_t) override { return SQLITE_FULL; }
//   };
//   SQLiteIO::setCurrent(std::make_shared<FullDisk>());   // ... nullptr restores
//
// Thread-safety: the calls arrive on whichever thread uses a connection, several at once;
// overrides must be thread-safe. setCurrent() may be called while connections are in use.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct sqlite3_file;

namespace pnx {

class SQLiteIO {
 public:
  virtual ~SQLiteIO() = default;

  // One open file: its path (the database, or the database's path followed by "-wal" or
  // "-journal"; empty for a temporary file) and the file of the operating system's VFS.
  struct File {
    const std::string& path;
    sqlite3_file* real;
  };

  // Each returns SQLITE_OK or an SQLite result code, as the VFS call of the same name.
  virtual int read(const File& file, void* buffer, int amount, std::int64_t offset);
  virtual int write(const File& file, const void* bytes, int amount, std::int64_t offset);
  virtual int truncate(const File& file, std::int64_t size);
  virtual int sync(const File& file, int flags);
  // The database file's own lock (SQLITE_LOCK_SHARED ... SQLITE_LOCK_EXCLUSIVE).
  virtual int lock(const File& file, int level);
  // A lock in the shared-memory index, which is where the write-ahead log's writer and
  // readers lock: flags combine SQLITE_SHM_LOCK / SQLITE_SHM_UNLOCK with SQLITE_SHM_SHARED /
  // SQLITE_SHM_EXCLUSIVE.
  virtual int shmLock(const File& file, int offset, int count, int flags);

  // Installs the calls every database uses from now on; nullptr restores plain forwarding.
  static void setCurrent(std::shared_ptr<SQLiteIO> io);
  // The name of the VFS that routes through the installed SQLiteIO (registered on first
  // use), for sqlite3_open_v2.
  static const char* vfsName();
};

}  // namespace pnx
