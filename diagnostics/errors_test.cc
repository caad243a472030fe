#include "diagnostics/errors.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diagnostics/log.h"
#include "diagnostics/log_capture_test.h"
#include "platform/foundation/url.h"

namespace {

using pnx::Value;

pnx::HTTPURLResponse response(long status, Value headers) {
  return pnx::HTTPURLResponse(pnx::URL::parse("https://push.example.com/3.0/apps/k/delivery"),
                              status, std::move(headers));
}

TEST(ErrorsTest, TheBuilderLayersDescriptionExtrasUnderlyingErrorAndCallSite) {
  auto userInfo = [](Value underlying, Value extras) {
    return NSError_PNX::errorWithCode(5, "x", std::move(underlying), std::move(extras))->userInfo();
  };
  const Value plain = userInfo(Value(), Value());
  EXPECT_EQ(plain[pnx::NSLocalizedDescriptionKey], Value("x"));
  EXPECT_EQ(plain.asDictionary()->size(), 2u);
  const Value extras = Value::dict({{pnx::NSLocalizedDescriptionKey, "y"},
                                    {pnx::NSUnderlyingErrorKey, "from extras"},
                                    {pnx::NSDebugDescriptionErrorKey, "stale"}});
  const Value layered = userInfo(Value(), extras);
  EXPECT_EQ(layered[pnx::NSLocalizedDescriptionKey], Value("y"));
  EXPECT_EQ(layered[pnx::NSUnderlyingErrorKey], Value("from extras"));
  EXPECT_EQ(userInfo("given", extras)[pnx::NSUnderlyingErrorKey], Value("given"));
  // The call site wins over an extra entry of its key.
  const Value debug = layered[pnx::NSDebugDescriptionErrorKey];
  ASSERT_TRUE(debug.isString());
  EXPECT_EQ(debug.asString()->rfind("Caller Information:", 0), 0u) << debug.description();

  // Without a caller record, addCaller logs and leaves the userInfo alone.
  PNXLog::sharedInstance().setLogLevelName("error");
  LogCapture capture;
  const Value info = Value::dict({{"k", 1}});
  EXPECT_EQ(NSError_PNX::addCaller(nullptr, info), info);
  EXPECT_EQ(NSError_PNX::addCaller(std::make_shared<pnx::URL>(pnx::URL::fileURL("/x")), info),
            info);
  EXPECT_EQ(
      capture.lines(),
      std::vector<std::string>(
          2, "\xF0\x9F\x9B\x91 NSError(PNX) addCaller called without valid caller reference."));
}

TEST(ErrorsTest, HttpResponseErrorCarriesStatusRetryAfterBodyAndURL) {
  auto userInfo = [](Value headers, std::optional<pnx::Data> body = std::nullopt) {
    return NSError_PNX::httpResponseError(response(429, std::move(headers)), body)->userInfo();
  };
  const Value busy = userInfo(Value::dict({{"Retry-After", "120"}}), pnx::Data{'b', 'u', 's', 'y'});
  EXPECT_EQ(busy["retryAfter"], Value(120));
  EXPECT_EQ(busy["statusMessage"], Value("busy"));
  EXPECT_EQ(busy["statusCode"], Value(429));
  EXPECT_EQ(busy[pnx::NSURLErrorKey].description(), "https://push.example.com/3.0/apps/k/delivery");

  auto retryAfter = [&](Value header, const char* name = "Retry-After") {
    return userInfo(Value::dict({{name, header}}))["retryAfter"];
  };
  EXPECT_EQ(retryAfter("Wed, 21 Oct 2015 07:28:00 GMT"), Value(0));
  EXPECT_EQ(retryAfter("  +30 seconds"), Value(30));
  EXPECT_EQ(retryAfter(Value(45.9)), Value(45));
  EXPECT_TRUE(retryAfter(Value::array({1})).isNull());
  // Header names match in any case, as HTTP/2 sends them in lower case.
  EXPECT_EQ(retryAfter("5", "retry-after"), Value(5));

  // No header, no body or a body that is not UTF-8 adds nothing.
  const Value bare = userInfo(Value::dict({{"X-Retry-After", "5"}}), pnx::Data{0xC3, 0x28});
  EXPECT_FALSE(bare.contains("retryAfter"));
  EXPECT_FALSE(bare.contains("statusMessage"));
  EXPECT_FALSE(userInfo(Value()).contains("statusMessage"));
}

TEST(ErrorsTest, EveryFactoryHasItsOwnCodeFrom100To123AndItsText) {
  pnx::Clock::set(pnx::Date(1700000000));
  const pnx::ErrorPtr errors[] = {
      NSError_PNX::appKeyMissing(),
      NSError_PNX::pnxRegistrationIncomplete(),
      NSError_PNX::apsRegistrationIncomplete(),
      NSError_PNX::invalidJsonFromServer(nullptr),
      NSError_PNX::keychainUnarchiveFailed(std::nullopt, nullptr),
      NSError_PNX::httpResponseError(response(400, Value()), std::nullopt),
      NSError_PNX::responseNotHttpError(),
      NSError_PNX::inboxSyncTooFrequent(pnx::Date(1700000000 - 90.04)),
      NSError_PNX::invalidInboxMessageId(),
      NSError_PNX::inboxMessageDecodeFromPayloadFailed(),
      NSError_PNX::duplicateUserAttribute("n", 1),
      NSError_PNX::duplicateChannelAttribute("n", 1),
      NSError_PNX::multipleDeleteUserAttribute("n"),
      NSError_PNX::multipleDeleteChannelAttribute("n"),
      NSError_PNX::verificationUserAttribute("n", 1),
      NSError_PNX::verificationChannelAttribute("n", 1),
      NSError_PNX::verificationDeleteUserAttribute("n"),
      NSError_PNX::verificationDeleteChannelAttribute("n"),
      NSError_PNX::genericDatabaseErrorCode(19, "constraint failed"),
      NSError_PNX::installIdNotAvailable(),
      NSError_PNX::httpRequestMissingURL(),
      NSError_PNX::valueIsNotJsonComplient(Value::array({1})),
      NSError_PNX::keychainNotAvailable(),
      NSError_PNX::duplicateEventNamed("open", "app"),
  };
  std::intptr_t expected = 100;
  for (const pnx::ErrorPtr& error : errors) {
    EXPECT_EQ(error->code(), expected++);
    EXPECT_EQ(error->domain(), errorDomain);
    EXPECT_FALSE(error->localizedDescription().empty());
  }
  pnx::Clock::useSystemClock();
  EXPECT_EQ(errors[1]->localizedDescription().back(), 's');  // no full stop, as shipped
  EXPECT_EQ(errors[4]->localizedDescription(), "Keychain unarchive of (null) failed");
  EXPECT_TRUE(errors[7]->localizedDescription().ends_with(
      "more then once every 5 minutes. Last sync was 90.0 seconds ago."));
  EXPECT_EQ(errors[18]->localizedDescription(), "constraint failed");
  EXPECT_EQ(errors[18]->userInfo()["sqliteCode"], Value(19));
  EXPECT_EQ(errors[23]->localizedDescription(),
            "Event with name: open, type: app was prevented from being queued multiple times.");
}

}  // namespace
