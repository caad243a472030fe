#include "platform/notifications/notification_center.h"

#include <chrono>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/dispatch/dispatch.h"
#include "platform/files/bundle.h"
#include "platform/files/container.h"
#include "platform/files/file_manager.h"
#include "platform/foundation/json.h"
#include "platform/security/sqlite.h"
#include "platform/system/system_log.h"

// On-disk layout of <device>/notifications/<app id>.db (user_version 1):
//
//   CREATE TABLE categories (position INTEGER PRIMARY KEY, identifier TEXT NOT NULL,
//                            definition TEXT NOT NULL)
//
// One row per registered category; definition is the category's jsonObject() as compact
// JSON. setNotificationCategories replaces every row in one transaction.

namespace pnx {
namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS categories (position INTEGER PRIMARY KEY,"
    " identifier TEXT NOT NULL, definition TEXT NOT NULL);"
    "PRAGMA user_version = 1;";
constexpr std::int64_t kSchemaVersion = 1;
// Each try already waits the connection's busy timeout; a few tries ride out a long write
// of another process.
constexpr int kBusyTries = 4;

// An app id names files: keep it one path component.
std::string fileNameFor(std::string identifier) {
  for (char& c : identifier) {
    if (c == '/' || c == '\0') c = '_';
  }
  if (identifier.empty() || identifier == "." || identifier == "..") return "unknown.bundle";
  return identifier;
}

bool ensurePrivateDirectory(const std::string& path, ErrorPtr* error) {
  bool isDirectory = false;
  if (FileManager::current().fileExists(path, &isDirectory) && isDirectory) return true;
  FileAttributes attributes;
  attributes.posixPermissions = 0700;
  return FileManager::current().createDirectory(path, true, attributes, error);
}

void logFailure(const std::string& what, const ErrorPtr& error) {
  static const SystemLog log("pnx.notifications", "center");
  log.write(LogType::Error, what + ": " + (error ? error->localizedDescription() : "unknown"));
}

// "name.ext", then "name 2.ext", "name 3.ext", ...
std::string candidateName(const std::string& name, int attempt) {
  if (attempt == 1) return name;
  auto dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return name + " " + std::to_string(attempt);
  return name.substr(0, dot) + " " + std::to_string(attempt) + name.substr(dot);
}

bool isInside(const std::string& path, const std::string& directory) {
  return path.size() > directory.size() + 1 && path.compare(0, directory.size(), directory) == 0 &&
         path[directory.size()] == '/';
}

struct CenterKey {
  std::string device;
  std::string applicationId;
  auto operator<=>(const CenterKey&) const = default;
};

class CenterRegistry {
 public:
  static CenterRegistry& shared() {
    // Never destroyed: centers and their queues serve until the process ends.
    static CenterRegistry* registry = new CenterRegistry();
    return *registry;
  }

  template <class Make>
  std::shared_ptr<NotificationCenter> find(const CenterKey& key, Make make) {
    std::lock_guard lock(mutex_);
    auto& center = centers_[key];
    if (!center) center = make();
    return center;
  }

  void forEach(const std::function<void(NotificationCenter&)>& visit) {
    std::vector<std::shared_ptr<NotificationCenter>> centers;
    {
      std::lock_guard lock(mutex_);
      for (auto& [key, center] : centers_) centers.push_back(center);
    }
    for (auto& center : centers) visit(*center);
  }

 private:
  std::mutex mutex_;
  std::map<CenterKey, std::shared_ptr<NotificationCenter>> centers_;
};

}  // namespace

// The connection to the app's category database; used only on the center's queue.
struct NotificationCenter::Storage {
  std::string path;
  std::unique_ptr<SQLiteDatabase> database;

  SQLiteDatabase* connection(ErrorPtr* error) {
    if (database) return database.get();
    if (!ensurePrivateDirectory(pathByDeletingLastComponent(path), error)) return nullptr;
    SQLiteDatabase::Options options;
    // Categories are registered again by the next notification that needs them, so a
    // commit need not wait for the disk; the write-ahead log still keeps the file whole.
    options.fullSync = false;
    auto opened = SQLiteDatabase::open(path, options, error);
    if (!opened || !ensureSchema(*opened, error)) return nullptr;
    database = std::move(opened);
    return database.get();
  }

  static bool ensureSchema(SQLiteDatabase& db, ErrorPtr* error) {
    std::int64_t version = 0;
    {
      auto rows = db.query("PRAGMA user_version", {}, error);
      if (!rows) return false;
      ErrorPtr stepError;
      if (rows->next(&stepError)) version = rows->valueForColumnIndex(0).integerValue();
      if (stepError) {
        if (error) *error = stepError;
        return false;
      }
    }
    if (version >= kSchemaVersion) return true;
    return db.transaction([&db](ErrorPtr* failure) { return db.execute(kSchema, failure); }, error);
  }

  // Runs work, trying again while another process holds the lock. A failed connection is
  // dropped so that the next call opens the file anew.
  template <class Work>
  bool run(Work work, ErrorPtr* error) {
    for (int attempt = 1;; ++attempt) {
      ErrorPtr failure;
      SQLiteDatabase* db = connection(&failure);
      if (db && work(*db, &failure)) return true;
      if (!SQLiteDatabase::isBusy(failure) || attempt == kBusyTries) {
        database.reset();
        if (error) *error = failure;
        return false;
      }
    }
  }

  // The stored set. A row that cannot be read as a category fails the whole read, unless
  // `unreadable` is given: then the row is left out and *unreadable gets what was wrong.
  std::optional<NotificationCategorySet> read(ErrorPtr* error,
                                              std::vector<ErrorPtr>* unreadable = nullptr) {
    if (!database && !FileManager::current().fileExists(path)) return NotificationCategorySet();
    NotificationCategorySet categories;
    bool ok = run(
        [&](SQLiteDatabase& db, ErrorPtr* failure) {
          categories.clear();
          if (unreadable) unreadable->clear();
          auto rows = db.query("SELECT definition FROM categories ORDER BY position", {}, failure);
          if (!rows) return false;
          while (rows->next(failure)) {
            ErrorPtr rowError;
            auto category = readRow(rows->valueForColumnIndex(0), &rowError);
            if (category) {
              categories.insert(std::move(category));
            } else if (unreadable) {
              unreadable->push_back(std::move(rowError));
            } else {
              if (failure) *failure = std::move(rowError);
              return false;
            }
          }
          return !(failure && *failure);
        },
        error);
    if (!ok) return std::nullopt;
    return categories;
  }

  NotificationCategoryPtr readRow(const Value& definition, ErrorPtr* error) {
    const std::string* text = definition.asString();
    auto json = text ? JSON::parse(*text, error) : std::nullopt;
    auto category = json ? NotificationCategory::fromJSONObject(*json, error) : nullptr;
    if (!category && !*error) {
      *error = Error::withDescription(NSCocoaErrorDomain, NSPropertyListReadCorruptError,
                                      "A stored category is not text", path);
    }
    return category;
  }

  bool write(const NotificationCategorySet& categories, ErrorPtr* error) {
    std::vector<std::pair<std::string, std::string>> rows;
    for (const auto& category : sortedCategories(categories)) {
      auto text = JSON::serialize(category->jsonObject(), error);
      if (!text) return false;
      rows.emplace_back(category->identifier(), std::move(*text));
    }
    return run(
        [&](SQLiteDatabase& db, ErrorPtr* failure) {
          return db.transaction(
              [&](ErrorPtr* inner) {
                if (!db.execute("DELETE FROM categories", inner)) return false;
                for (std::size_t i = 0; i < rows.size(); ++i) {
                  if (!db.execute("INSERT INTO categories VALUES (?, ?, ?)",
                                  {Value(static_cast<long long>(i)), Value(rows[i].first),
                                   Value(rows[i].second)},
                                  inner)) {
                    return false;
                  }
                }
                return true;
              },
              failure);
        },
        error);
  }
};

bool isApplicationExtension(const Bundle& bundle) {
  const std::string& path = bundle.bundlePath();
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  return !bundle.objectForInfoDictionaryKey("NSExtension").isNull() ||
         bundle.objectForInfoDictionaryKey("CFBundlePackageType") == Value("XPC!") ||
         trimmed.ends_with(".appex");
}

std::string notificationApplicationIdentifier(const Bundle* bundle) {
  auto identifier = bundle ? bundle->bundleIdentifier() : std::nullopt;
  if (!identifier) return "unknown.bundle";
  if (isApplicationExtension(*bundle)) {
    auto dot = identifier->rfind('.');
    if (dot != std::string::npos && dot > 0) identifier->resize(dot);
  }
  return *identifier;
}

std::shared_ptr<NotificationCenter> NotificationCenter::currentNotificationCenter() {
  auto bundle = Bundle::main();
  return forApplication(notificationApplicationIdentifier(bundle.get()));
}

std::shared_ptr<NotificationCenter> NotificationCenter::forApplication(
    const std::string& applicationId) {
  CenterKey key{Device::directory(), applicationId};
  return CenterRegistry::shared().find(key, [&key] {
    return std::shared_ptr<NotificationCenter>(
        new NotificationCenter(key.device, key.applicationId));
  });
}

NotificationCenter::NotificationCenter(std::string device, std::string applicationId)
    : device_(std::move(device)),
      applicationId_(std::move(applicationId)),
      databasePath_(pathByAppendingComponent(pathByAppendingComponent(device_, "notifications"),
                                             fileNameFor(applicationId_) + ".db")),
      storage_(std::make_unique<Storage>(Storage{databasePath_, nullptr})),
      queue_(DispatchQueue::create("pnx.notifications." + fileNameFor(applicationId_))) {
  static std::once_flag closeAtExit;
  std::call_once(closeAtExit, [] {
    // Closing the connections folds the write-ahead logs back into the database files.
    std::atexit([] { NotificationCenter::closeAll(); });
  });
}

NotificationCenter::~NotificationCenter() = default;

void NotificationCenter::closeAll() {
  CenterRegistry::shared().forEach([](NotificationCenter& center) {
    // A handler that never returns must not hold up the end of the process.
    auto closed = std::make_shared<std::promise<void>>();
    center.queue_->async([&center, closed] {
      center.storage_->database.reset();
      closed->set_value();
    });
    closed->get_future().wait_for(std::chrono::seconds(1));
  });
}

std::string NotificationCenter::attachmentsDirectory() const {
  std::string app = pathByAppendingComponent(pathByAppendingComponent(device_, "notifications"),
                                             fileNameFor(applicationId_));
  return pathByAppendingComponent(app, "attachments");
}

// Counts one queued call until its block has run to the end. A handler that queues more
// calls counts them before its own call ends, so the count never touches zero mid-chain.
class PendingCall {
 public:
  explicit PendingCall(std::atomic<std::size_t>& pending) : pending_(pending) { ++pending_; }
  PendingCall(const PendingCall&) = delete;
  PendingCall& operator=(const PendingCall&) = delete;
  // The main thread's run loop may be waiting for the count to reach zero.
  ~PendingCall() {
    if (--pending_ == 0) RunLoop::wakeUp();
  }

 private:
  std::atomic<std::size_t>& pending_;
};

void NotificationCenter::getNotificationCategories(CategoriesHandler completionHandler) {
  auto call = std::make_shared<PendingCall>(pending_);
  queue_->async([this, call, handler = std::move(completionHandler)] {
    // A row that cannot be read is left out rather than the whole set: whoever registers
    // next merges into what it is given, and an empty set would wipe every category.
    ErrorPtr error;
    std::vector<ErrorPtr> unreadable;
    auto categories = storage_->read(&error, &unreadable);
    if (!categories)
      logFailure("Cannot read the notification categories of " + applicationId_, error);
    for (const auto& rowError : unreadable) {
      logFailure("Leaving out a stored notification category of " + applicationId_, rowError);
    }
    if (handler) handler(categories ? std::move(*categories) : NotificationCategorySet());
    // The count drops when the block (and with it `call`) is destroyed, after the handler.
  });
}

void NotificationCenter::setNotificationCategories(NotificationCategorySet categories) {
  auto call = std::make_shared<PendingCall>(pending_);
  queue_->async([this, call, categories = std::move(categories)] {
    ErrorPtr error;
    if (!storage_->write(categories, &error)) {
      logFailure("Cannot store the notification categories of " + applicationId_, error);
    }
  });
}

std::optional<NotificationCategorySet> NotificationCenter::registeredCategories(ErrorPtr* error) {
  std::optional<NotificationCategorySet> categories;
  ErrorPtr failure;
  queue_->sync([&] { categories = storage_->read(&failure); });
  if (!categories && error) *error = failure;
  return categories;
}

void NotificationCenter::waitUntilIdle() {
  queue_->drain();
}

NotificationContentPtr NotificationCenter::displayNotification(const NotificationContent& content,
                                                               ErrorPtr* error) {
  auto attachments = content.attachments();
  if (attachments.empty()) return content.copy();
  auto shown = content.mutableCopy();
  std::vector<NotificationAttachmentPtr> stored;
  ErrorPtr firstFailure;
  const std::string directory = attachmentsDirectory();
  const std::string temporary = Container::temporaryDirectory();
  FileManager& files = FileManager::current();
  for (const auto& attachment : attachments) {
    ErrorPtr failure;
    const std::string source = attachment->url().path();
    const bool move = isInside(source, temporary);
    const std::string name = lastPathComponent(source);
    std::optional<std::string> destination;
    if (ensurePrivateDirectory(directory, &failure)) {
      // Moves and copies never overwrite: a taken name fails with "file exists".
      for (int attempt = 1; attempt <= 1000 && !destination; ++attempt) {
        std::string candidate = pathByAppendingComponent(directory, candidateName(name, attempt));
        failure.reset();
        bool done = move ? files.moveItem(source, candidate, &failure)
                         : files.copyItem(source, candidate, &failure);
        if (done) destination = candidate;
        if (!done && !(failure && failure->domain() == NSCocoaErrorDomain &&
                       failure->code() == NSFileWriteFileExistsError)) {
          break;
        }
      }
    }
    if (destination) {
      stored.push_back(attachment->withURL(URL::fileURL(*destination)));
    } else if (!firstFailure) {
      firstFailure = Error::withDescription(
          UNErrorDomain, UNErrorCodeAttachmentMoveIntoDataStoreFailed,
          "Cannot move attachment " + source + " into " + directory + ": " +
              (failure ? failure->localizedDescription() : "every name is taken"),
          source);
    }
  }
  shown->setAttachments(std::move(stored));
  if (firstFailure && error) *error = firstFailure;
  return shown;
}

}  // namespace pnx
