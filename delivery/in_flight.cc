#include "delivery/in_flight.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

namespace pnx {

namespace {

std::string readFirstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

const std::string& kernelBootId() {
  static const std::string id = readFirstLine("/proc/sys/kernel/random/boot_id");
  return id;
}

struct ProcessStat {
  char state = '?';
  std::int64_t startTime = 0;
};

// State (field 3) and start time (field 22) of /proc/<pid>/stat. The command name (field
// 2) is in parentheses and may hold spaces and parentheses, so fields are counted from the
// last ')'.
std::optional<ProcessStat> readStat(pid_t pid) {
  std::string line = readFirstLine("/proc/" + std::to_string(pid) + "/stat");
  std::size_t close = line.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream fields(line.substr(close + 1));
  ProcessStat stat;
  fields >> stat.state;
  std::string skipped;
  for (int field = 4; field < 22; ++field) fields >> skipped;
  fields >> stat.startTime;
  if (!fields) return std::nullopt;
  return stat;
}

}  // namespace

ProcessIdentity ProcessIdentity::current() {
  pid_t pid = getpid();
  auto stat = readStat(pid);
  return ProcessIdentity{pid, stat ? stat->startTime : 0, kernelBootId()};
}

std::optional<ProcessIdentity> ProcessIdentity::running(pid_t pid) {
  auto stat = readStat(pid);
  if (!stat || stat->state == 'Z' || stat->state == 'X') return std::nullopt;
  return ProcessIdentity{pid, stat->startTime, kernelBootId()};
}

bool inFlightOwnerRunning(const Value& entry) {
  if (!entry["pid"].isNumber()) return false;
  auto running = ProcessIdentity::running(static_cast<pid_t>(entry["pid"].integerValue()));
  if (!running) return false;
  ProcessIdentity owner{entry["pid"].integerValue(), entry["processStart"].integerValue(),
                        entry["boot"].isString() ? *entry["boot"].asString() : std::string()};
  return *running == owner;
}

Value inFlightEntry(const ProcessIdentity& owner, Date started, const Set& records) {
  return Value::dict({{"pid", owner.pid},
                      {"processStart", owner.startTime},
                      {"boot", owner.bootId},
                      {"started", started},
                      {"records", Value(Array(records.begin(), records.end()))}});
}

Value inFlightWith(const Value& stored, const std::string& sendId, const Value& entry) {
  Dictionary entries = stored.isDictionary() ? *stored.asDictionary() : Dictionary();
  entries[Value(sendId)] = entry;
  return Value(std::move(entries));
}

std::optional<Value> inFlightWithout(const Value& stored, const std::vector<std::string>& sendIds) {
  if (!stored.isDictionary()) return std::nullopt;
  Dictionary entries = *stored.asDictionary();
  std::size_t before = entries.size();
  for (const std::string& sendId : sendIds) entries.erase(Value(sendId));
  if (entries.size() == before) return std::nullopt;
  return Value(std::move(entries));
}

namespace {

void addRecords(const Value& entry, Set* records) {
  if (const Array* list = entry["records"].asArray()) records->insert(list->begin(), list->end());
}

}  // namespace

AbandonedSends abandonedSends(const Value& stored, Date now, double maxAge,
                              const std::function<bool(const Value& entry)>& ownerRunning) {
  AbandonedSends abandoned;
  const Dictionary* entries = stored.asDictionary();
  if (!entries) return abandoned;
  for (const auto& [key, entry] : *entries) {
    const Date* started = entry["started"].asDate();
    bool malformed = !key.isString() || !entry.isDictionary() || !started;
    bool tooOld =
        started && now.timeIntervalSince1970() - started->timeIntervalSince1970() > maxAge;
    if (malformed || tooOld || !ownerRunning(entry)) {
      if (key.isString()) abandoned.sendIds.push_back(*key.asString());
      addRecords(entry, &abandoned.records);
    }
  }
  return abandoned;
}

Set inFlightRecords(const Value& stored) {
  Set records;
  if (const Dictionary* entries = stored.asDictionary()) {
    for (const auto& entry : *entries) addRecords(entry.second, &records);
  }
  return records;
}

}  // namespace pnx
