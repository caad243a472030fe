// pnx deliver PAYLOAD|- [--time-budget S] [--id ID]: plays the operating system's part when a
// push arrives. Reads an APNs-style payload (a JSON object, from a file or stdin), builds
// the notification request, runs the notification service extension when "aps" asks for
// mutable content, shows the first content handed back (its attachments move into the
// device's notification store) and prints, as one JSON object,
//   {"extension": bool, "expired": bool, "handBacks": [content, ...], "displayed": content}
// with content {"identifier", "title", "subtitle", "body", "badge", "sound",
// "categoryIdentifier", "threadIdentifier", "userInfo", "attachments": [{"identifier",
// "url", "type"}]}. A picture of the notification as shown goes to stderr.
//
// The service's console lines go to the system log, like the library's log lines; with
// --log, both go to stderr.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "platform/foundation/json.h"
#include "platform/foundation/uuid.h"
#include "platform/notifications/notification_center.h"
#include "platform/system/system_log.h"
#include "service/extension_host.h"
#include "service/notification_service.h"
#include "tools/pnx/command.h"

namespace pnx {
namespace {

struct DeliverOptions {
  std::string payload;
  double timeBudget = 30;
  std::optional<std::string> identifier;
};

// Sends console lines (the platform's NSLog) where system-log lines go.
class ConsoleToSystemLog final : public LogSink {
 public:
  explicit ConsoleToSystemLog(std::shared_ptr<LogSink> target) : target_(std::move(target)) {}
  void systemLog(LogType type, std::string_view subsystem, std::string_view category,
                 std::string_view text) override {
    target_->systemLog(type, subsystem, category, text);
  }
  void console(std::string_view text) override {
    target_->systemLog(LogType::Info, "pnx", "console", text);
  }

 private:
  std::shared_ptr<LogSink> target_;
};

std::optional<std::string> readPayloadText(const std::string& source, std::string* failure) {
  if (source == "-") {
    return std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  // A directory opens for reading but reads as nothing, which would pass for an empty
  // payload.
  std::error_code ignored;
  if (std::filesystem::is_directory(source, ignored)) {
    *failure = "the payload " + source + " is a directory, not a file";
    return std::nullopt;
  }
  std::ifstream file(source, std::ios::binary);
  if (!file) {
    *failure = "cannot read the payload file " + source;
    return std::nullopt;
  }
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string buttonsLine(const NotificationContent& content) {
  if (content.categoryIdentifier().empty()) return {};
  auto categories = NotificationCenter::currentNotificationCenter()->registeredCategories();
  if (!categories) return {};
  std::string line;
  for (const auto& category : sortedCategories(*categories)) {
    if (category->identifier() != content.categoryIdentifier()) continue;
    for (const auto& action : category->actions()) {
      line += line.empty() ? "[ " : " [ ";
      line += action->title();
      if (action->asTextInput()) line += " …";
      if (action->options() & NotificationActionOptionDestructive) line += " (destructive)";
      line += " ]";
    }
  }
  return line;
}

// What a person sees, in a few lines: title, subtitle, body, attachment, buttons.
void printPicture(const ExtensionOutcome& outcome) {
  const NotificationContent& shown = *outcome.displayed;
  std::ostringstream picture;
  picture << "pnx: notification as shown"
          << (outcome.extensionRan ? "" : " (no extension: not mutable content)")
          << (outcome.expired ? " (the extension ran out of time)" : "") << '\n';
  auto line = [&](const std::string& text) {
    if (!text.empty()) picture << "  │ " << text << '\n';
  };
  line(shown.title());
  line(shown.subtitle());
  line(shown.body());
  for (const auto& attachment : shown.attachments()) {
    line("📎 " + attachment->url().lastPathComponent() + " (" + attachment->type() + ")");
  }
  line(buttonsLine(shown));
  picture << "  handed back " << outcome.handBacks.size() << " time"
          << (outcome.handBacks.size() == 1 ? "" : "s") << '\n';
  std::cerr << picture.str() << std::flush;
}

int runDeliver(const DeliverOptions& options, const PnxGlobals& globals) {
  std::string failure;
  auto text = readPayloadText(options.payload, &failure);
  if (!text) return pnxFail(failure);
  ErrorPtr error;
  auto payload = JSON::parse(*text, &error);
  if (!payload) return pnxFail("the payload is not JSON: " + error->localizedDescription());
  if (!payload->isDictionary()) {
    return pnxFail("the payload must be a JSON object, not " + payload->className());
  }
  if (!(options.timeBudget >= 0)) return pnxUsage("--time-budget must be 0 or more seconds");
  if (!globals.logToStderr) {
    SystemLog::setSink(std::make_shared<ConsoleToSystemLog>(SystemLog::sink()));
  }

  const std::string identifier = options.identifier.value_or(UUID::random().string());
  auto request = ExtensionHost::requestFromPayload(identifier, *payload);
  ExtensionRunOptions run;
  run.timeBudget = options.timeBudget;
  ExtensionOutcome outcome = ExtensionHost::deliver(request, PNXNotificationService::make(), run);

  Array handBacks;
  for (const auto& content : outcome.handBacks) {
    handBacks.push_back(content ? content->jsonObject(identifier) : Value());
  }
  pnxPrintJSON(Value::dict({{"extension", outcome.extensionRan},
                            {"expired", outcome.expired},
                            {"handBacks", std::move(handBacks)},
                            {"displayed", outcome.displayed->jsonObject(identifier)}}));
  printPicture(outcome);
  if (outcome.displayError) {
    pnxProgress("an attachment could not be kept: " + outcome.displayError->localizedDescription());
  }
  return 0;
}

CommandRegistration registration(
    "deliver", "Run the notification service on a push payload, as the OS does",
    [](CLI::App& sub) -> PnxCommandRun {
      auto options = std::make_shared<DeliverOptions>();
      sub.add_option("payload", options->payload, "The payload: a JSON file, or - for stdin")
          ->required()
          ->type_name("PAYLOAD");
      sub.add_option("--time-budget", options->timeBudget,
                     "Seconds the extension may take before it is told its time expires")
          ->type_name("S");
      sub.add_option("--id", options->identifier, "The request identifier (default: a new UUID)")
          ->type_name("ID");
      return [options](const PnxGlobals& globals) { return runDeliver(*options, globals); };
    });

}  // namespace
}  // namespace pnx
