// Faults of pnx serve and how a plan of several faults is used up.

#include "tools/pnx/serve/fault.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/foundation/json.h"

namespace pnx::serve {
namespace {

TEST(ServeFault, ParsesEveryPartAndListsOfFaultsAndRefusesBadOnesWithAReason) {
  const auto parts = [](const Fault& f) {
    return std::tuple(f.text, f.status, f.retryAfter, f.delaySeconds, f.drop, f.times);
  };
  EXPECT_EQ(
      parts(parseFault(" status=429 , retry-after=30,delay=0.25,times=2 ").value_or(Fault{})),
      std::tuple("status=429 , retry-after=30,delay=0.25,times=2", 429, "30", 0.25, false, 2u));
  EXPECT_EQ(parts(parseFault("drop").value_or(Fault{})), parts(Fault{"drop", {}, {}, 0, true, {}}));
  EXPECT_TRUE(parseFault("status=503,drop,times=1"));
  EXPECT_TRUE(parseFault("delay=2"));  // delays, then answers normally
  auto faults = parseFaultList(R"(["status=500,times=1", "drop"])").value_or(std::vector<Fault>{});
  ASSERT_EQ(faults.size(), 2u);
  EXPECT_TRUE(faults[1].drop);
  EXPECT_TRUE(parseFaultList("[]"));

  const std::pair<const char*, const char*> cases[] = {
      {"", "empty"},
      {"status=abc", "status must be"},
      {"status=99", "status must be"},
      {"status=600", "status must be"},
      {"status", "needs a value"},
      {"status=500,status=501", "given twice"},
      {"status=500,times=0", "times must be"},
      {"status=500,delay=-1", "delay must be"},
      {"status=500,delay=nan", "delay must be"},
      {"status=500,delay=601", "delay must be"},
      {"status=500,,times=1", "empty part"},
      {"drop=yes", "takes no value"},
      {"times=2", "needs status"},
      {"delay=1,retry-after=5", "no status"},
      {"drop,retry-after=5", "retry-after"},
      {"status=500,colour=red", "unknown fault part \"colour\""},
      {"status=429,retry-after=1\r\nX: y", "control characters"},
  };
  const auto expectRefused = [](auto parse, std::string_view text, const char* mentions) {
    std::string error;
    EXPECT_FALSE(parse(text, &error)) << text;
    EXPECT_NE(error.find(mentions), std::string::npos) << text << " -> " << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << text;
  };
  for (const auto& [text, mentions] : cases) expectRefused(parseFault, text, mentions);
  expectRefused(parseFaultList, "status=500", "not JSON");
  expectRefused(parseFaultList, R"({"fault": "status=500"})", "array");
  expectRefused(parseFaultList, R"(["status=500", 5])", "fault 1 is not a string");
  expectRefused(parseFaultList, R"(["status=500", "status=1"])", "status must be");
}

TEST(ServeFault, PlanTakesTheFirstFaultWithUsesLeftOnceAcrossThreads) {
  FaultPlan plan;
  plan.replace({*parseFault("status=500,times=1"), *parseFault("status=429,times=2")});
  EXPECT_EQ(plan.next()->status, 500);
  EXPECT_EQ(plan.next()->status, 429);
  EXPECT_EQ(plan.describe(), pnx::JSON::parse(R"([{"fault": "status=500,times=1", "remaining": 0},
                                                   {"fault": "status=429,times=2", "remaining": 1}])"));
  EXPECT_EQ(plan.next()->status, 429);
  EXPECT_EQ(plan.next(), std::nullopt);  // all used up: answers are normal again

  plan.replace({*parseFault("status=503"), *parseFault("status=500")});
  for (int i = 0; i < 3; ++i) EXPECT_EQ(plan.next()->status, 503);  // no times: for ever
  plan.replace({});
  EXPECT_EQ(plan.next(), std::nullopt);

  plan.replace({*parseFault("status=500,times=1000")});
  std::atomic<int> taken = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      while (plan.next()) ++taken;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(taken, 1000);
}

}  // namespace
}  // namespace pnx::serve
