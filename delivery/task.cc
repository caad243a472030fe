#include "delivery/task.h"

#include <atomic>

#include "platform/foundation/format.h"
#include "platform/foundation/json.h"
#include "platform/security/sqlite.h"

const long PNXTaskMaxRetriesDefault = 10;
const long PNXTaskAlwaysRetry = -1;

namespace {

std::atomic<bool>& retryWithBackoffDefault() {
  static std::atomic<bool> value{false};
  return value;
}

pnx::Value dictionaryOrEmpty(const pnx::Value& value) {
  return value.isDictionary() ? value : pnx::Value(pnx::Dictionary());
}

// The payload column: JSON text of a dictionary. Anything else is an empty payload, not
// an error: a damaged row must not stop the queue.
pnx::Value payloadFromColumn(const pnx::Value& column) {
  const std::string* text = column.asString();
  auto parsed = text ? pnx::JSON::parse(*text) : std::nullopt;
  return parsed ? dictionaryOrEmpty(*parsed) : pnx::Value(pnx::Dictionary());
}

// Whole seconds since 1970: fractions are dropped as the stored integers have none.
pnx::Date dateFromColumn(const pnx::Value& column) {
  return pnx::Date(static_cast<double>(column.integerValue()));
}

}  // namespace

PNXTask::PNXTask() : userInfo_(pnx::Dictionary()) {
  createdDate_ = pnx::Date::now();
  availableDate_ = pnx::Date::now();
}

std::shared_ptr<PNXTask> PNXTask::taskWithName(const std::string& name,
                                               const pnx::Value& userInfo) {
  return taskWithName(name, userInfo, pnx::Date::now(), PNXTaskMaxRetriesDefault,
                      retryWithBackoffDefault().load());
}

std::shared_ptr<PNXTask> PNXTask::taskWithName(const std::string& name, const pnx::Value& userInfo,
                                               std::optional<pnx::Date> availableDate,
                                               long maxRetries, bool useBackoff) {
  auto task = std::make_shared<PNXTask>();
  task->name_ = name;
  task->userInfo_ = dictionaryOrEmpty(userInfo);
  task->availableDate_ = availableDate.value_or(pnx::Date::now());
  task->maxRetries_ = maxRetries;
  task->retryWithBackoff_ = useBackoff;
  return task;
}

std::shared_ptr<PNXTask> PNXTask::taskWithResultSet(const pnx::SQLiteResultSet& resultSet) {
  pnx::Value row = resultSet.resultDictionary();
  auto task = std::make_shared<PNXTask>();
  task->taskID_ = row["id"];
  const std::string* name = row["name"].asString();
  task->name_ = name ? std::optional<std::string>(*name) : std::nullopt;
  task->userInfo_ = payloadFromColumn(row["userInfo"]);
  task->createdDate_ = dateFromColumn(row["createdDate"]);
  task->availableDate_ = dateFromColumn(row["availableDate"]);
  task->retryCount_ = static_cast<long>(row["retryCount"].integerValue());
  task->maxRetries_ = static_cast<long>(row["maxRetries"].integerValue());
  task->retryWithBackoff_ = row["retryWithBackoff"].boolValue();
  return task;
}

void PNXTask::setRetryWithBackoffDefault(bool retryWithBackoff) {
  retryWithBackoffDefault().store(retryWithBackoff);
}

bool PNXTask::canBeRetried() const {
  return maxRetries_ < 0 || retryCount_ < maxRetries_;
}

std::string PNXTask::description() const {
  pnx::Value name = name_ ? pnx::Value(*name_) : pnx::Value();
  return pnx::format("Task %@: %@ (%ld retries, next available %@), userInfo: %@", taskID_, name,
                     retryCount_, availableDate_, userInfo_);
}
