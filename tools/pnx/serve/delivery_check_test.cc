// What pnx serve accepts as a delivery report and how it refuses everything else.

#include "tools/pnx/serve/delivery_check.h"

#include <gtest/gtest.h>

#include "codecs/gzip.h"

namespace pnx::serve {
namespace {

std::string gzip(std::string_view text) {
  auto compressed = gzippedData(pnx::Data(text.begin(), text.end()));
  return std::string(compressed->begin(), compressed->end());
}

const HeaderList kGoodHeaders = {{"Content-Encoding", "gzip"},
                                 {"Content-type", "application/json"}};

TEST(ServeDeliveryCheck, AcceptsRecordsWithTheirSizes) {
  const std::string json = R"({"delivery":[{"userId":"u","mailingId":7},{}]})";
  const std::string body = gzip(json);
  DeliveryCheck check = checkDelivery(kGoodHeaders, body);
  ASSERT_TRUE(check.accepted()) << check.error;
  ASSERT_EQ(check.records.size(), 2u);
  EXPECT_EQ(check.records[0], pnx::Value::dict({{"userId", "u"}, {"mailingId", 7}}));
  EXPECT_EQ(check.gzipBytes, body.size());
  EXPECT_EQ(check.jsonBytes, json.size());

  // Header names and values in any case, with parameters and spaces.
  const HeaderList relaxed = {{"content-encoding", " GZip "},
                              {"CONTENT-TYPE", "Application/JSON; charset=utf-8"}};
  EXPECT_TRUE(checkDelivery(relaxed, gzip(R"({"delivery":[]})")).accepted());
}

TEST(ServeDeliveryCheck, RefusesWithStatusAndReason) {
  const std::string good = gzip(R"({"delivery":[]})");
  const HeaderList noEncoding = {{"Content-type", "application/json"}};
  const HeaderList deflate = {{"Content-Encoding", "deflate"},
                              {"Content-type", "application/json"}};
  const HeaderList noType = {{"Content-Encoding", "gzip"}};
  const HeaderList textType = {{"Content-Encoding", "gzip"}, {"Content-type", "text/plain"}};
  const HeaderList jsonx = {{"Content-Encoding", "gzip"}, {"Content-type", "application/jsonx"}};
  std::string trailing = good + "xyz";
  std::string truncated = good.substr(0, good.size() - 4);
  std::string corrupt = good;
  corrupt[12] = static_cast<char>(corrupt[12] ^ 0x55);

  struct Case {
    const char* name;
    HeaderList headers;
    std::string body;
    int status;
    const char* mentions;
  };
  const Case cases[] = {
      {"no encoding", noEncoding, good, 400, "Content-Encoding is missing"},
      {"deflate", deflate, good, 400, "not gzip"},
      {"no type", noType, good, 400, "Content-type is missing"},
      {"text", textType, good, 400, "not application/json"},
      {"jsonx", jsonx, good, 400, "not application/json"},
      {"plain body", kGoodHeaders, R"({"delivery":[]})", 400, "not gzip data"},
      {"empty body", kGoodHeaders, "", 400, "not gzip data"},
      {"trailing bytes", kGoodHeaders, trailing, 400, "bytes after the gzip data"},
      {"truncated", kGoodHeaders, truncated, 400, "truncated"},
      {"corrupt", kGoodHeaders, corrupt, 400, "gzip"},
      {"not JSON", kGoodHeaders, gzip("{delivery:"), 400, "not JSON"},
      {"empty JSON", kGoodHeaders, gzip(" \n"), 400, "not JSON"},
      {"array at the top", kGoodHeaders, gzip("[]"), 400, "not a JSON object"},
      {"no delivery", kGoodHeaders, gzip(R"({"records":[]})"), 400, "no \"delivery\""},
      {"null delivery", kGoodHeaders, gzip(R"({"delivery":null})"), 400, "not an array"},
      {"object delivery", kGoodHeaders, gzip(R"({"delivery":{}})"), 400, "not an array"},
      {"string record", kGoodHeaders, gzip(R"({"delivery":[{}, "x"]})"), 400, "item 1"},
  };
  for (const auto& c : cases) {
    DeliveryCheck check = checkDelivery(c.headers, c.body);
    EXPECT_EQ(check.status, c.status) << c.name;
    EXPECT_NE(check.error.find(c.mentions), std::string::npos) << c.name << ": " << check.error;
    EXPECT_TRUE(check.records.empty()) << c.name;
  }
}

TEST(ServeDeliveryCheck, SizeLimitsGive413) {
  const std::string json = R"({"delivery":[)" + std::string(1000, ' ') + "]}";
  const std::string body = gzip(json);
  DeliveryLimits tight;
  tight.maxJsonBytes = json.size() - 1;
  DeliveryCheck inflated = checkDelivery(kGoodHeaders, body, tight);
  EXPECT_EQ(inflated.status, 413);
  EXPECT_NE(inflated.error.find("decompresses to more than"), std::string::npos);

  tight.maxJsonBytes = json.size();
  EXPECT_TRUE(checkDelivery(kGoodHeaders, body, tight).accepted());

  tight.maxBodyBytes = body.size() - 1;
  EXPECT_EQ(checkDelivery(kGoodHeaders, body, tight).status, 413);
}

TEST(ServeDeliveryCheck, GunzipStopsAtTheCapWithoutInflatingEverything) {
  // 64 MB of zeros compress to about 64 kB; decompression must stop near the cap.
  const std::string bomb = gzip(std::string(64 * 1024 * 1024, '\0'));
  std::string out;
  EXPECT_EQ(gunzipCapped(bomb, 100000, out), GunzipStatus::TooLarge);
  EXPECT_LE(out.size(), 100000u);

  // Concatenated members are one gzip file.
  out.clear();
  EXPECT_EQ(gunzipCapped(gzip("ab") + gzip("cd"), 10, out), GunzipStatus::Ok);
  EXPECT_EQ(out, "abcd");
}

}  // namespace
}  // namespace pnx::serve
