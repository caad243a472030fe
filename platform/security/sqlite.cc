#include "platform/security/sqlite.h"

#include <sqlite3.h>

#include "platform/files/file_manager.h"
#include "platform/security/sqlite_io.h"

namespace pnx {

namespace {

constexpr const char* kInMemoryPath = ":memory:";

ErrorPtr makeError(int code, const std::string& what, const std::string& path,
                   const std::string& detail, const ErrorPtr& underlying = nullptr) {
  std::string description = what + " " + path + ": " + detail;
  Dictionary info{{Value(NSLocalizedDescriptionKey), Value(description)},
                  {Value(NSFilePathErrorKey), Value(path)}};
  if (underlying) info[Value(NSUnderlyingErrorKey)] = Value(ObjectPtr(underlying));
  return Error::make(SQLiteErrorDomain, code, Value(std::move(info)));
}

// Opens the file, creating it with the requested permissions when missing, before SQLite
// sees it: so the database (and the -wal and -shm files, which SQLite gives the same mode)
// is private from the first byte, and a symbolic link in its place, even a dangling one,
// is refused rather than followed. An existing file is left as it is.
bool openPrivateFile(const std::string& path, mode_t mode, ErrorPtr* error) {
  FileOpenOptions options;
  options.create = true;
  options.followSymbolicLinks = false;
  options.permissions = mode;
  ErrorPtr failure;
  auto handle = FileManager::current().fileHandleForUpdating(path, options, &failure);
  if (!handle) {
    if (error) {
      std::string reason = failure ? failure->localizedDescription() : "cannot be opened";
      *error = makeError(SQLITE_CANTOPEN, "cannot open database", path, reason, failure);
    }
    return false;
  }
  handle->close();
  return true;
}

bool bindValue(sqlite3_stmt* statement, int index, const Value& value) {
  switch (value.type()) {
    case Value::Type::Null:
      return sqlite3_bind_null(statement, index) == SQLITE_OK;
    case Value::Type::Boolean:
    case Value::Type::Integer:
      return sqlite3_bind_int64(statement, index, value.integerValue()) == SQLITE_OK;
    case Value::Type::Real:
      return sqlite3_bind_double(statement, index, value.doubleValue()) == SQLITE_OK;
    case Value::Type::String: {
      const std::string& text = *value.asString();
      return sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_TRANSIENT,
                                 SQLITE_UTF8) == SQLITE_OK;
    }
    case Value::Type::Date:
      return sqlite3_bind_double(statement, index, value.asDate()->timeIntervalSince1970()) ==
             SQLITE_OK;
    case Value::Type::Data: {
      const Data& bytes = *value.asData();
      // A zero-length blob must still be a blob, not null: give SQLite a valid pointer.
      static const std::uint8_t kEmpty = 0;
      const void* start = bytes.empty() ? &kEmpty : bytes.data();
      return sqlite3_bind_blob64(statement, index, start, bytes.size(), SQLITE_TRANSIENT) ==
             SQLITE_OK;
    }
    default:
      return false;
  }
}

}  // namespace

std::unique_ptr<SQLiteDatabase> SQLiteDatabase::open(const std::string& path,
                                                     const Options& options, ErrorPtr* error) {
  if (path != kInMemoryPath && !openPrivateFile(path, options.createMode, error)) return nullptr;
  sqlite3* db = nullptr;
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  int rc = sqlite3_open_v2(path.c_str(), &db, flags, SQLiteIO::vfsName());
  if (rc != SQLITE_OK) {
    if (error) {
      *error =
          makeError(rc, "cannot open database", path, db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    }
    sqlite3_close_v2(db);
    return nullptr;
  }
  sqlite3_extended_result_codes(db, 1);
  sqlite3_busy_timeout(db, options.busyTimeoutMilliseconds);
  std::unique_ptr<SQLiteDatabase> database(new SQLiteDatabase(db, path));
  // Reading the schema version reads the file header, so a file that is not a database
  // fails here; it comes before the write-ahead log is switched on, which writes.
  if (options.newestUserVersion && !database->checkUserVersion(*options.newestUserVersion, error)) {
    return nullptr;
  }
  std::string setup = options.writeAheadLog ? "PRAGMA journal_mode=WAL;" : "";
  setup += options.fullSync ? "PRAGMA synchronous=FULL;" : "PRAGMA synchronous=NORMAL;";
  // A page cache of 16 MiB instead of 2 MiB: a transaction that rewrites a value of a few
  // megabytes (a long delivery queue) would otherwise spill pages to the file before it
  // commits, and reading and writing that value would grow faster than its size.
  setup += "PRAGMA cache_size=-16384;";
  setup += "PRAGMA schema_version;";
  if (!database->execute(setup, error)) return nullptr;
  return database;
}

bool SQLiteDatabase::checkUserVersion(std::int64_t newest, ErrorPtr* error) {
  auto rows = query("PRAGMA user_version", {}, error);
  if (!rows) return false;
  ErrorPtr stepError;
  if (!rows->next(&stepError)) {
    if (error) *error = stepError;
    return false;
  }
  std::int64_t version = rows->valueForColumnIndex(0).integerValue();
  if (version <= newest) return true;
  if (error) {
    *error = makeError(SQLITE_CANTOPEN, "cannot open database", path_,
                       "its schema version " + std::to_string(version) +
                           " is newer than the newest this program knows (" +
                           std::to_string(newest) + "); it is left untouched");
  }
  return false;
}

SQLiteDatabase::~SQLiteDatabase() {
  sqlite3_close_v2(db_);
}

ErrorPtr SQLiteDatabase::lastError(int code, const std::string& what) const {
  return makeError(code, what, path_, sqlite3_errmsg(db_));
}

bool SQLiteDatabase::execute(const std::string& sql, ErrorPtr* error) {
  int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) {
    if (error) *error = lastError(rc, "cannot execute statement on");
    return false;
  }
  return true;
}

bool SQLiteDatabase::execute(const std::string& sql, const std::vector<Value>& arguments,
                             ErrorPtr* error) {
  auto rows = query(sql, arguments, error);
  if (!rows) return false;
  ErrorPtr stepError;
  while (rows->next(&stepError)) {
  }
  if (stepError) {
    if (error) *error = stepError;
    return false;
  }
  return true;
}

sqlite3_stmt* SQLiteDatabase::prepareStatement(const std::string& sql,
                                               const std::vector<Value>& arguments,
                                               ErrorPtr* error) {
  sqlite3_stmt* statement = nullptr;
  int rc = sqlite3_prepare_v2(db_, sql.c_str(), static_cast<int>(sql.size()), &statement, nullptr);
  if (rc != SQLITE_OK) {
    if (error) *error = lastError(rc, "cannot prepare statement on");
    sqlite3_finalize(statement);
    return nullptr;
  }
  if (static_cast<int>(arguments.size()) != sqlite3_bind_parameter_count(statement)) {
    if (error) *error = makeError(SQLITE_RANGE, "wrong number of arguments for", path_, sql);
    sqlite3_finalize(statement);
    return nullptr;
  }
  for (size_t i = 0; i < arguments.size(); ++i) {
    if (!bindValue(statement, static_cast<int>(i) + 1, arguments[i])) {
      if (error) {
        *error = makeError(SQLITE_MISMATCH,
                           "cannot bind argument " + std::to_string(i + 1) + " (" +
                               arguments[i].className() + ") for",
                           path_, sql);
      }
      sqlite3_finalize(statement);
      return nullptr;
    }
  }
  return statement;
}

std::optional<SQLiteResultSet> SQLiteDatabase::query(const std::string& sql,
                                                     const std::vector<Value>& arguments,
                                                     ErrorPtr* error) {
  sqlite3_stmt* statement = prepareStatement(sql, arguments, error);
  if (!statement) return std::nullopt;
  return SQLiteResultSet(this, statement);
}

bool SQLiteDatabase::transaction(const std::function<bool(ErrorPtr* error)>& body,
                                 ErrorPtr* error) {
  if (!execute("BEGIN IMMEDIATE", error)) return false;
  ErrorPtr failure;
  bool done = false;
  try {
    done = body(&failure) && execute("COMMIT", &failure);
  } catch (...) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
  if (done) return true;
  // The rollback's own failure (say, the transaction already ended) changes nothing.
  sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  if (error) *error = failure;
  return false;
}

std::int64_t SQLiteDatabase::lastInsertRowId() const {
  return sqlite3_last_insert_rowid(db_);
}

int SQLiteDatabase::changes() const {
  return sqlite3_changes(db_);
}

int SQLiteDatabase::resultCode(const ErrorPtr& error) {
  if (!error || error->domain() != SQLiteErrorDomain) return -1;
  return static_cast<int>(error->code() & 0xff);
}

bool SQLiteDatabase::isBusy(const ErrorPtr& error) {
  int code = resultCode(error);
  return code == SQLITE_BUSY || code == SQLITE_LOCKED;
}

SQLiteResultSet::SQLiteResultSet(SQLiteResultSet&& other) noexcept
    : database_(other.database_), statement_(other.statement_) {
  other.statement_ = nullptr;
}

SQLiteResultSet& SQLiteResultSet::operator=(SQLiteResultSet&& other) noexcept {
  if (this != &other) {
    sqlite3_finalize(statement_);
    database_ = other.database_;
    statement_ = other.statement_;
    other.statement_ = nullptr;
  }
  return *this;
}

SQLiteResultSet::~SQLiteResultSet() {
  sqlite3_finalize(statement_);
}

bool SQLiteResultSet::next(ErrorPtr* error) {
  if (!statement_) return false;
  int rc = sqlite3_step(statement_);
  if (rc == SQLITE_ROW) return true;
  if (rc != SQLITE_DONE && error) *error = database_->lastError(rc, "cannot step statement on");
  return false;
}

int SQLiteResultSet::columnCount() const {
  return statement_ ? sqlite3_column_count(statement_) : 0;
}

std::string SQLiteResultSet::columnName(int index) const {
  const char* name = statement_ ? sqlite3_column_name(statement_, index) : nullptr;
  return name ? name : "";
}

Value SQLiteResultSet::valueForColumnIndex(int index) const {
  if (!statement_ || index < 0 || index >= columnCount()) return Value();
  switch (sqlite3_column_type(statement_, index)) {
    case SQLITE_INTEGER:
      return Value(static_cast<long long>(sqlite3_column_int64(statement_, index)));
    case SQLITE_FLOAT:
      return Value(sqlite3_column_double(statement_, index));
    case SQLITE_TEXT: {
      auto text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, index));
      int length = sqlite3_column_bytes(statement_, index);
      return Value(std::string(text ? text : "", text ? length : 0));
    }
    case SQLITE_BLOB: {
      auto bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, index));
      int length = sqlite3_column_bytes(statement_, index);
      return Value(bytes ? Data(bytes, bytes + length) : Data());
    }
    default:
      return Value();
  }
}

Value SQLiteResultSet::valueForColumn(const std::string& name) const {
  for (int i = 0; i < columnCount(); ++i) {
    if (columnName(i) == name) return valueForColumnIndex(i);
  }
  return Value();
}

Value SQLiteResultSet::resultDictionary() const {
  Dictionary row;
  for (int i = 0; i < columnCount(); ++i) row[Value(columnName(i))] = valueForColumnIndex(i);
  return Value(std::move(row));
}

}  // namespace pnx
