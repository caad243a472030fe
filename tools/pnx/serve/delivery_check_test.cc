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

TEST(ServeDeliveryCheck, AcceptsRecordsWithTheirSizesAndRefusesWithStatusAndReason) {
  const std::string json = R"({"delivery":[{"userId":"u","mailingId":7},{}]})";
  const std::string body = gzip(json);
  DeliveryCheck check = checkDelivery(kGoodHeaders, body);
  ASSERT_TRUE(check.accepted()) << check.error;
  EXPECT_EQ(check.records, (pnx::Array{pnx::Value::dict({{"userId", "u"}, {"mailingId", 7}}),
                                       pnx::Value::dict({})}));
  EXPECT_EQ(std::pair(check.gzipBytes, check.jsonBytes), std::pair(body.size(), json.size()));

  // Names and values in any case, with parameters and spaces; of a repeated one, the first.
  const HeaderList relaxed = {{"content-encoding", " GZip "},
                              {"CONTENT-TYPE", "Application/JSON; charset=utf-8"},
                              {"Content-Encoding", "deflate"}};
  const std::string good = gzip(R"({"delivery":[]})");
  EXPECT_TRUE(checkDelivery(relaxed, good).accepted());

  std::string corrupt = good;
  corrupt[12] = static_cast<char>(corrupt[12] ^ 0x55);
  const auto withType = [](const char* type) {
    return HeaderList{{"Content-Encoding", "gzip"}, {"Content-type", type}};
  };
  const std::tuple<HeaderList, std::string, const char*> cases[] = {
      {{{"Content-type", "application/json"}}, good, "Content-Encoding is missing"},
      {{{"Content-Encoding", "deflate"}, {"Content-type", "application/json"}}, good, "not gzip"},
      {{{"Content-Encoding", "gzip"}}, good, "Content-type is missing"},
      {withType("text/plain"), good, "not application/json"},
      {withType("application/jsonx"), good, "not application/json"},
      {kGoodHeaders, R"({"delivery":[]})", "not gzip data"},
      {kGoodHeaders, good + "xyz", "bytes after the gzip data"},
      {kGoodHeaders, good.substr(0, good.size() - 4), "truncated"},
      {kGoodHeaders, corrupt, "gzip"},
      {kGoodHeaders, gzip("{delivery:"), "not JSON"},
      {kGoodHeaders, gzip(" \n"), "not JSON"},
      {kGoodHeaders, gzip("[]"), "not a JSON object"},
      {kGoodHeaders, gzip(R"({"records":[]})"), "no \"delivery\""},
      {kGoodHeaders, gzip(R"({"delivery":null})"), "not an array"},
      {kGoodHeaders, gzip(R"({"delivery":[{}, "x"]})"), "item 1"},
  };
  for (const auto& [headers, body, mentions] : cases) {
    DeliveryCheck check = checkDelivery(headers, body);
    EXPECT_EQ(check.status, 400) << mentions;
    EXPECT_NE(check.error.find(mentions), std::string::npos) << mentions << ": " << check.error;
    EXPECT_TRUE(check.records.empty()) << mentions;
  }
}

TEST(ServeDeliveryCheck, SizeLimitsGive413AndGunzipStopsAtTheCap) {
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

  // 16 MB of zeros compress to about 16 kB; decompression must stop near the cap.
  const std::string bomb = gzip(std::string(16 * 1024 * 1024, '\0'));
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
