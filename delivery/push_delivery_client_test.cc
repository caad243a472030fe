#include "delivery/push_delivery_client.h"

#include <gtest/gtest.h>

#include <future>

#include "codecs/gzip.h"
#include "delivery/delivery_server_test.h"
#include "delivery/delivery_fixture_test.h"
#include "diagnostics/errors.h"

namespace pnx::testing {
namespace {

class DeliveryClientTest : public DeliveryTest {
 protected:
  // Sends and waits for the completion.
  ErrorPtr send(const Set& queue) {
    std::promise<ErrorPtr> outcome;
    PNXPushDeliveryClient().sendPushQueue(queue, [&](ErrorPtr error) { outcome.set_value(error); });
    auto future = outcome.get_future();
    EXPECT_EQ(future.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    return future.get();
  }

  DeliveryServer server_;
  Set queue_{Value::dict({{"userId", "u1"}, {"attribution", "a1"}}),
             Value::dict({{"channelId", "c2"}, {"mailingId", 7}})};
};

TEST_F(DeliveryClientTest, PostsTheCompressedQueueWithItsHeaders) {
  for (std::string base :
       {server_.baseUrl(), server_.baseUrl().substr(0, server_.baseUrl().size() - 1)}) {
    useServer(base);
    EXPECT_EQ(send(queue_), nullptr);
  }
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 2u);
  for (const auto& request : requests) {
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/3.0/apps/apTestKey1/delivery");
    EXPECT_EQ(request.headers.find("Content-Encoding")->second, "gzip");
    EXPECT_EQ(request.headers.find("Content-type")->second, "application/json");
    // The server inflates gzip bodies before handing them over; what came over the wire
    // was the compressed form, as its length says.
    Data json(request.body.begin(), request.body.end());
    EXPECT_EQ(request.headers.find("Content-Length")->second,
              std::to_string(gzippedData(json)->size()));
    ASSERT_TRUE(request.records().isArray());
    EXPECT_EQ(Set(request.records().asArray()->begin(), request.records().asArray()->end()),
              queue_);
  }
  EXPECT_TRUE(log_.contains("Payload Compression on, only sending "));
  EXPECT_TRUE(
      log_.contains("POST " + server_.baseUrl() + "3.0/apps/apTestKey1/delivery\n{\"delivery\":["));
  EXPECT_TRUE(log_.contains("200 Response From: " + server_.baseUrl() +
                            "3.0/apps/apTestKey1/delivery\n{}"));

  // An empty queue still posts an empty delivery array.
  EXPECT_EQ(send({}), nullptr);
  EXPECT_EQ(server_.requests().back().json, Value::dict({{"delivery", Value(Array())}}));
}

TEST_F(DeliveryClientTest, OnlyTwoHundredsSucceedAndOtherStatusesCarryTheAnswer) {
  useServer(server_.baseUrl());
  for (int status : {204, 299}) {
    // A 204 carries no body; one sent anyway would be read as the start of the next answer
    // on the reused connection.
    server_.respondWith(status, {}, status == 204 ? "" : "{}");
    EXPECT_EQ(send(queue_), nullptr) << status;
  }
  server_.respondWith(200, {}, std::string("\xff\xfe\x80", 3));
  EXPECT_EQ(send(queue_), nullptr);
  EXPECT_TRUE(log_.contains("\nNon UTF-8 data detected"));

  // What the error carries of the answer is checked with httpResponseError.
  server_.respondWith(300, {{"Retry-After", "30"}}, "went wrong");
  ErrorPtr error = send(queue_);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "pnx.campaign.mobile");
  EXPECT_EQ(error->code(), 105);
  EXPECT_EQ(error->userInfo()["statusMessage"], Value("went wrong"));
}

TEST_F(DeliveryClientTest, FailuresBeforeAnAnswerMakeNoRequest) {
  // Synchronous: the completion has run when sendPushQueue returns.
  ErrorPtr error;
  auto sendNow = [&](const Set& queue) {
    error = nullptr;
    PNXPushDeliveryClient().sendPushQueue(queue, [&](ErrorPtr e) { error = e; });
    return error;
  };
  useServer(server_.baseUrl());
  PNXConfig::sharedInstance()->setAppKey(std::nullopt);
  ASSERT_NE(sendNow(queue_), nullptr);
  EXPECT_EQ(error->code(), 100);
  EXPECT_TRUE(log_.contains("Couldn't find appKey in configuration!"));

  PNXConfig::sharedInstance()->setAppKey("apTestKey1");
  EXPECT_TRUE(server_.requests().empty());

  // Transport errors pass through unchanged.
  useServer("http://127.0.0.1:1/");
  error = send(queue_);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), NSURLErrorDomain);
  EXPECT_EQ(error->code(), -1004);
  EXPECT_TRUE(log_.contains("HTTP Error occured Error Domain=NSURLErrorDomain Code=-1004"));
}

}  // namespace
}  // namespace pnx::testing
