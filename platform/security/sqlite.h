// A small layer over SQLite: a database connection opened the way the platform's stores
// need it (write-ahead log, busy timeout, full sync, private file, never through a symbolic
// link), prepared statements bound from Values, and result sets that hand out rows as
// Values. Every connection does its file work through SQLiteIO (sqlite_io.h), where tests
// can make the disk fail.
//
// Failures are values: an Error in SQLiteErrorDomain whose code is SQLite's extended
// result code and whose description names the database file and what SQLite said.
// isBusy() tells the lock conflicts a caller may retry from everything else.
//
// Thread-safety: a SQLiteDatabase and its statements belong to one thread at a time
// (callers serialise access); distinct connections, also in other processes, may use
// the same file concurrently. A connection must not be used across fork().
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"

struct sqlite3;
struct sqlite3_stmt;

namespace pnx {

inline constexpr const char* SQLiteErrorDomain = "SQLiteErrorDomain";

class SQLiteResultSet;

class SQLiteDatabase {
 public:
  struct Options {
    // How long one statement waits for another connection's lock before giving up. 0 hands
    // SQLITE_BUSY straight back, for callers that wait out conflicts on their own terms.
    int busyTimeoutMilliseconds = 5000;
    // Write-ahead log: readers never block the writer, and a crash leaves a valid file.
    bool writeAheadLog = true;
    // fsync on every commit, so a transaction that returned survives a crash.
    bool fullSync = true;
    // Permissions of a database file that open() creates (the log files follow them).
    mode_t createMode = 0600;
    // The newest schema (PRAGMA user_version) the caller understands: a database with a
    // newer one is refused before anything is written to it.
    std::optional<std::int64_t> newestUserVersion;
  };

  // Opens (creating when missing) the database at path; ":memory:" opens a private
  // in-memory database. nullptr and *error when it cannot be opened, is not a database,
  // is a symbolic link (also a dangling one), or has a newer schema than the options allow.
  static std::unique_ptr<SQLiteDatabase> open(const std::string& path, const Options& options,
                                              ErrorPtr* error = nullptr);
  static std::unique_ptr<SQLiteDatabase> open(const std::string& path, ErrorPtr* error = nullptr) {
    return open(path, Options(), error);
  }
  ~SQLiteDatabase();
  SQLiteDatabase(const SQLiteDatabase&) = delete;
  SQLiteDatabase& operator=(const SQLiteDatabase&) = delete;

  // Runs one or more statements without parameters or results.
  bool execute(const std::string& sql, ErrorPtr* error = nullptr);
  // Runs one statement with `arguments` bound to its ? placeholders, to completion.
  bool execute(const std::string& sql, const std::vector<Value>& arguments,
               ErrorPtr* error = nullptr);
  // Prepares one statement with `arguments` bound; step through it with next().
  std::optional<SQLiteResultSet> query(const std::string& sql,
                                       const std::vector<Value>& arguments = {},
                                       ErrorPtr* error = nullptr);

  // Runs body inside BEGIN IMMEDIATE ... COMMIT (taking the write lock up front, so the
  // transaction never fails half-way on a lock upgrade). Rolls back when body returns false,
  // throws (the exception then passes on) or the commit fails.
  bool transaction(const std::function<bool(ErrorPtr* error)>& body, ErrorPtr* error = nullptr);

  std::int64_t lastInsertRowId() const;
  // Rows changed by the last INSERT, UPDATE or DELETE.
  int changes() const;
  const std::string& path() const { return path_; }
  sqlite3* handle() const { return db_; }

  // Whether error is a lock conflict with another connection (SQLITE_BUSY or
  // SQLITE_LOCKED), which the same work may succeed on when tried again.
  static bool isBusy(const ErrorPtr& error);
  // The SQLite primary result code of an error from this layer, or -1 for another error.
  static int resultCode(const ErrorPtr& error);

 private:
  SQLiteDatabase(sqlite3* db, std::string path) : db_(db), path_(std::move(path)) {}
  ErrorPtr lastError(int code, const std::string& what) const;
  bool checkUserVersion(std::int64_t newest, ErrorPtr* error);
  sqlite3_stmt* prepareStatement(const std::string& sql, const std::vector<Value>& arguments,
                                 ErrorPtr* error);

  sqlite3* db_;
  std::string path_;
  friend class SQLiteResultSet;
};

// The rows of one prepared statement. Move-only; finalises the statement when destroyed.
// The database must outlive its result sets.
class SQLiteResultSet {
 public:
  SQLiteResultSet(SQLiteResultSet&& other) noexcept;
  SQLiteResultSet& operator=(SQLiteResultSet&& other) noexcept;
  ~SQLiteResultSet();

  // Moves to the next row: true when positioned on one, false at the end or on failure
  // (then *error is filled).
  bool next(ErrorPtr* error = nullptr);

  // The current row as a dictionary from column name to value: integers as numbers,
  // reals as numbers, text as strings, blobs as data, null as null.
  Value resultDictionary() const;
  Value valueForColumnIndex(int index) const;
  Value valueForColumn(const std::string& name) const;
  int columnCount() const;
  std::string columnName(int index) const;

 private:
  friend class SQLiteDatabase;
  SQLiteResultSet(const SQLiteDatabase* database, sqlite3_stmt* statement)
      : database_(database), statement_(statement) {}

  const SQLiteDatabase* database_;
  sqlite3_stmt* statement_;
};

}  // namespace pnx
