// PNXTask: the value record of one unit of deferred work in the kit's task table: a
// name, a JSON-compatible payload, when it may run next, and its retry budget. It is
// made fresh by its producer (taskWithName) or from a row of the table
// (taskWithResultSet), and answers one question of policy, canBeRetried(). Scheduling,
// backoff delays and the table itself belong to the code that owns the table.
//
// Thread-safety: a task is a plain value with non-atomic properties; share it between
// threads only with outside locking. The process-wide backoff default
// (setRetryWithBackoffDefault) is atomic.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/date.h"
#include "platform/foundation/export.h"
#include "platform/foundation/value.h"

namespace pnx {
class SQLiteResultSet;
}

// The retry budget of tasks made with taskWithName(name, userInfo).
extern PNX_EXPORT const long PNXTaskMaxRetriesDefault;  // 10
// A maxRetries value meaning "retry without limit"; any negative value does the same.
extern PNX_EXPORT const long PNXTaskAlwaysRetry;  // -1

class PNX_EXPORT PNXTask {
 public:
  // init: an empty payload, created and available now (created read first), no retries
  // and a budget of 0.
  PNXTask();

  // Available now, a budget of PNXTaskMaxRetriesDefault, and the process-wide backoff
  // default. A null (or non-dictionary) userInfo gives an empty payload.
  static std::shared_ptr<PNXTask> taskWithName(const std::string& name, const pnx::Value& userInfo);
  // A missing availableDate means now.
  static std::shared_ptr<PNXTask> taskWithName(const std::string& name, const pnx::Value& userInfo,
                                               std::optional<pnx::Date> availableDate,
                                               long maxRetries, bool useBackoff);
  // A task from the row the result set is positioned on: columns "id", "name", "userInfo"
  // (JSON text; anything that does not parse to a dictionary gives an empty payload),
  // "createdDate" and "availableDate" (whole seconds since 1970), "retryCount",
  // "maxRetries", "retryWithBackoff". Missing or null columns read as 0.
  static std::shared_ptr<PNXTask> taskWithResultSet(const pnx::SQLiteResultSet& resultSet);
  // The backoff default of later taskWithName(name, userInfo) calls (initially false).
  static void setRetryWithBackoffDefault(bool retryWithBackoff);

  // True for a negative budget; otherwise while retryCount is below maxRetries.
  bool canBeRetried() const;
  // "Task <id>: <name> (<n> retries, next available <date>), userInfo: <payload>"
  std::string description() const;

  // The row identifier in the task table (an integer number), or null until stored.
  const pnx::Value& taskID() const { return taskID_; }
  void setTaskID(pnx::Value taskID) { taskID_ = std::move(taskID); }
  const std::optional<std::string>& name() const { return name_; }
  void setName(std::optional<std::string> name) { name_ = std::move(name); }
  const pnx::Value& userInfo() const { return userInfo_; }
  void setUserInfo(pnx::Value userInfo) { userInfo_ = std::move(userInfo); }
  pnx::Date createdDate() const { return createdDate_; }
  void setCreatedDate(pnx::Date date) { createdDate_ = date; }
  pnx::Date availableDate() const { return availableDate_; }
  void setAvailableDate(pnx::Date date) { availableDate_ = date; }
  long retryCount() const { return retryCount_; }
  void setRetryCount(long count) { retryCount_ = count; }
  long maxRetries() const { return maxRetries_; }
  void setMaxRetries(long maxRetries) { maxRetries_ = maxRetries; }
  bool retryWithBackoff() const { return retryWithBackoff_; }
  void setRetryWithBackoff(bool retryWithBackoff) { retryWithBackoff_ = retryWithBackoff; }

 private:
  pnx::Value taskID_;
  std::optional<std::string> name_;
  pnx::Value userInfo_;
  pnx::Date createdDate_;
  pnx::Date availableDate_;
  long retryCount_ = 0;
  long maxRetries_ = 0;
  bool retryWithBackoff_ = false;
};
