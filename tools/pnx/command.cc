#include "tools/pnx/command.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <utility>

#include <openssl/evp.h>

#include "diagnostics/log.h"
#include "platform/files/bundle.h"
#include "platform/files/container.h"
#include "platform/foundation/format.h"
#include "platform/foundation/json.h"
#include "platform/system/system_log.h"

namespace pnx {
namespace {

// Function-local so that registrations from other files' static initialisers find it
// constructed, whatever the order in which the files are initialised.
std::vector<RegisteredCommand>& registry() {
  static std::vector<RegisteredCommand> commands;
  return commands;
}

// Standard base64 with padding, by OpenSSL. EVP_EncodeBlock writes no line breaks and
// takes an int count, so large data goes in chunks of a multiple of three bytes: only the
// last chunk is padded.
std::string base64(const pnx::Data& bytes) {
  constexpr std::size_t kChunk = 3 << 20;
  std::string text;
  text.reserve(4 * ((bytes.size() + 2) / 3) + 1);
  std::string block(4 * (kChunk / 3) + 1, '\0');  // room for the closing NUL
  for (std::size_t at = 0; at < bytes.size(); at += kChunk) {
    const std::size_t count = std::min(kChunk, bytes.size() - at);
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(block.data()),
                                       bytes.data() + at, static_cast<int>(count));
    text.append(block, 0, static_cast<std::size_t>(length));
  }
  return text;
}

// A copy of `value` that the JSON serialiser accepts.
pnx::Value jsonSafe(const pnx::Value& value) {
  using Type = pnx::Value::Type;
  switch (value.type()) {
    case Type::Real:
      return std::isfinite(value.doubleValue()) ? value : pnx::Value();
    case Type::Date:
      return value.asDate()->iso8601();
    case Type::Data:
      return base64(*value.asData());
    case Type::Object:
      return value.description();
    case Type::Array: {
      pnx::Array items;
      for (const auto& item : *value.asArray()) items.push_back(jsonSafe(item));
      return items;
    }
    case Type::Set: {
      pnx::Array items;
      for (const auto& item : *value.asSet()) items.push_back(jsonSafe(item));
      return items;
    }
    case Type::Dictionary: {
      pnx::Dictionary entries;
      for (const auto& [key, item] : *value.asDictionary()) {
        pnx::Value name = key.isString() ? key : pnx::Value(key.description());
        entries.insert_or_assign(std::move(name), jsonSafe(item));
      }
      return entries;
    }
    default:
      return value;
  }
}

// The longest message pnx writes; the parts that quote bad input are excerpts already.
constexpr std::size_t kMaxMessageBytes = 1024;

// Messages are one line each, so that scripts can rely on it, and nothing in them (an
// exception's reason, a name from the command line) may flood or drive the terminal.
std::string oneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::replace(text.begin(), text.end(), '\r', ' ');
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return pnx::excerpt(text, kMaxMessageBytes);
}

}  // namespace

CommandRegistration::CommandRegistration(const char* name, const char* help, CommandSetup setup) {
  registry().push_back({name, help, std::move(setup)});
}

namespace {
std::vector<char*> rememberedArguments;
}  // namespace

void pnxRememberArguments(int argc, char** argv) {
  rememberedArguments.assign(argv, argv + argc);
  rememberedArguments.push_back(nullptr);
}

int pnxExecSibling(const std::string& name) {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error || rememberedArguments.empty()) return pnxFail("cannot find pnx's own directory");
  const std::string program = (self.parent_path() / name).string();
  PNXLog::sharedInstance().drain();  // lines still queued would die with this image
  std::cout.flush();
  std::cerr.flush();
  execv(program.c_str(), rememberedArguments.data());
  return pnxFail("cannot run " + program + ": " + std::strerror(errno));
}

std::vector<RegisteredCommand> registeredCommands() {
  std::vector<RegisteredCommand> commands = registry();
  std::sort(commands.begin(), commands.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  return commands;
}

namespace {

// Shows system-log and console lines on stderr, one line each, for people running pnx on a
// machine whose syslog they cannot read (or that has none).
class StderrLogSink final : public pnx::LogSink {
 public:
  void systemLog(pnx::LogType, std::string_view, std::string_view, std::string_view text) override {
    write(text);
  }
  void console(std::string_view text) override { write(text); }

 private:
  void write(std::string_view text) {
    std::lock_guard lock(mutex_);
    std::cerr << "pnx log: " << text << '\n' << std::flush;
  }
  std::mutex mutex_;
};

}  // namespace

void pnxPrepare(const PnxGlobals& globals) {
  pnx::Device::setDirectory(globals.device);
  pnx::Bundle::setMain(globals.bundle);
  if (globals.logToStderr) pnx::SystemLog::setSink(std::make_shared<StderrLogSink>());
}

std::string pnxJSONText(const pnx::Value& value) {
  // Wrapped in an array because the serialiser only writes arrays and objects at the top;
  // the brackets are cut off again.
  auto text = pnx::JSON::serialize(pnx::Value::array({jsonSafe(value)}));
  if (!text || text->size() < 2) return "null";  // not reached for a jsonSafe value
  return text->substr(1, text->size() - 2);
}

void pnxPrintJSON(const pnx::Value& value) {
  std::cout << pnxJSONText(value) << '\n' << std::flush;
}

int pnxFail(const std::string& message) {
  std::cerr << "pnx: " << oneLine(message) << '\n' << std::flush;
  return 1;
}

int pnxUsage(const std::string& message) {
  std::cerr << "pnx: " << oneLine(message) << "; see pnx --help\n" << std::flush;
  return 2;
}

void pnxProgress(const std::string& message) {
  std::cerr << "pnx: " << oneLine(message) << '\n' << std::flush;
}
}  // namespace pnx
