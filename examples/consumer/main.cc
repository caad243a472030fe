// A program outside the project that uses the installed library: it checks a handful of
// public APIs and exits non-zero when one of them answers wrongly.
//
// Usage: consumer [expected-caller-framework]
// With an argument, the framework named in an error's caller record must equal it: the
// library's own name when the library is shared, the program's name when it is static.
#include <QuorvexMobilePushNotification/QuorvexMobilePushNotification.h>

#include <cstdio>
#include <string>

namespace {

int failures = 0;

void check(bool ok, const std::string& what) {
  std::printf("%s %s\n", ok ? "ok  " : "FAIL", what.c_str());
  if (!ok) ++failures;
}

// The "Framework: " line of an error's caller record; empty when there is none.
std::string callerFramework(const pnx::Error& error) {
  const std::string* text = error.userInfo()[pnx::NSDebugDescriptionErrorKey].asString();
  if (!text) return {};
  const std::string key = "\nFramework: ";
  const auto start = text->find(key);
  if (start == std::string::npos) return {};
  const auto begin = start + key.size();
  return text->substr(begin, text->find('\n', begin) - begin);
}

}  // namespace

int main(int argc, char** argv) {
  std::printf("library version %s\n", PNXSdkVersion);

  const pnx::Data body(4096, 'x');
  const auto zipped = gzippedData(body);
  check(zipped && isGzippedData(*zipped) && zipped->size() < body.size(), "gzip compresses");
  const auto unzipped = zipped ? gunzippedData(*zipped) : std::nullopt;
  check(unzipped && *unzipped == body, "gzip round trip");

  check(hexadecimalString(pnx::Data{0x00, 0xab, 0xff}) == "00abff", "hexadecimalString");
  check(stringFromHex("70757368") == std::optional<std::string>("push"), "stringFromHex");

  const pnx::ErrorPtr missingKey = NSError_PNX::appKeyMissing();
  check(missingKey->domain() == errorDomain && missingKey->code() == 100,
        "appKeyMissing: " + missingKey->localizedDescription());

  // An error made inside the library: its caller record names the library's code.
  pnx::ErrorPtr unreadable;
  auto item = PNXKeychainItem::initWithKeyDictionary(pnx::Value::dict({}), &unreadable);
  check(!item && unreadable && unreadable->code() == 104, "keychain item without data: 104");
  const std::string framework = unreadable ? callerFramework(*unreadable) : "";
  std::printf("caller framework: %s\n", framework.c_str());
  if (argc > 1) check(framework == argv[1], std::string("caller framework is ") + argv[1]);

  PNXLog& log = PNXLog::sharedInstance();
  log.setLogLevelName("warn");
  check(log.logLevelName() == std::optional<std::string>("WARN"), "PNXLog level WARN");
  PNXLogInfo("not shown: %@", pnx::Value(1));
  log.drain();

  // Without a configuration file delivery reporting is off: nothing is sent, at once.
  std::size_t sent = 1;
  pnx::ErrorPtr sendError;
  PNXPushDeliveryMananger::sharedInstance()->sendPushDelivery(
      pnx::Value::dict({}), [&](std::size_t count, pnx::ErrorPtr error) {
        sent = count;
        sendError = error;
      });
  check(sent == 0 && !sendError, "PNXPushDeliveryMananger with reporting off sends nothing");

  if (failures) std::printf("%d check(s) failed\n", failures);
  return failures ? 1 : 0;
}
