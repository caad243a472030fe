// pnx identity and pnx keychain, run as separate processes against one device, and the
// items they leave in the device's keychain database.

#include <gtest/gtest.h>

#include "platform/foundation/keyed_archive.h"
#include "platform/security/sqlite.h"
#include "tools/pnx/run_pnx_test.h"

namespace {

constexpr const char* kSharedGroup = "A1B2C3D4E5.PNX";  // teamId of the sample bundle + ".PNX"

// The items of the PNX service and an account in the device's database, each as its group,
// accessibility and value unarchived.
std::vector<pnx::Value> storedRows(const PnxRunner& pnx, const std::string& account) {
  auto database = pnx::SQLiteDatabase::open(pnx.device() + "/keychain.db");
  EXPECT_TRUE(database);
  auto rows = database ? database->query(
                             "SELECT access_group, accessible, data FROM items"
                             " WHERE service = 'PNX' AND account = ?",
                             {pnx::Value(account)})
                       : std::nullopt;
  std::vector<pnx::Value> result;
  while (rows && rows->next()) {
    result.push_back(pnx::Value::array(
        {rows->valueForColumnIndex(0), rows->valueForColumnIndex(1),
         pnx::KeyedUnarchiver::unarchiveObjectWithData(*rows->valueForColumnIndex(2).asData())}));
  }
  return result;
}

TEST(PnxKeychainCommands, IdentityIsWrittenIntoTheSharedGroupOnlyAndReadBack) {
  PnxRunner pnx;
  expectPnxFailure(pnx.run({"keychain", "set", "userId", "\"x\"", "--group", "ZZZZZ.PNX"}), 1,
                   "errSecMissingEntitlement (-34018)");
  EXPECT_TRUE(storedRows(pnx, "userId").empty());
  EXPECT_EQ(expectPnxJSON(pnx.run({"identity"})),
            pnx::Value::dict({{"userId", pnx::Value()}, {"channelId", pnx::Value()}}));
  EXPECT_EQ(expectPnxJSON(pnx.run({"identity", "--user-id", "user-7", "--channel-id", "chan-9"})),
            pnx::Value::dict({{"userId", "user-7"}, {"channelId", "chan-9"}}));
  EXPECT_EQ(expectPnxJSON(pnx.run({"identity", "--user-id", "user-8"})),
            pnx::Value::dict({{"userId", "user-8"}, {"channelId", "chan-9"}}));

  EXPECT_EQ(storedRows(pnx, "userId"),
            std::vector{pnx::Value::array({kSharedGroup, "dku", "user-8"})});

  // A bundle entitled to its own identifier only may not write the shared group.
  pnx::testing::TempDir bundle;
  bundle.write("Info.plist", pnx::testing::ScopedDevice::infoPlist("com.example.other"));
  bundle.write("PnxConfig.json", R"({"teamId": "A1B2C3D4E5"})");
  expectPnxFailure(PnxRunner(bundle.path()).run({"identity", "--user-id", "u"}), 1,
                   "errSecMissingEntitlement");
}

TEST(PnxKeychainCommands, SetGetAndRemoveOneItem) {
  PnxRunner pnx;
  const char* queue = R"([{"userId":"u1","mailingId":3},{"channelId":"c2"}])";
  const pnx::Value expected = *pnx::JSON::parse(queue);
  EXPECT_EQ(expectPnxJSON(pnx.run({"keychain", "set", "pushQueue", queue})), expected);
  EXPECT_EQ(expectPnxJSON(pnx.run({"keychain", "get", "pushQueue"})), expected);
  EXPECT_EQ(storedRows(pnx, "pushQueue"),
            std::vector{pnx::Value::array({kSharedGroup, "dku", expected})});

  // Another service is another item; "" selects the default group.
  expectPnxJSON(
      pnx.run({"keychain", "set", "pushQueue", "42", "--service", "other", "--group", ""}));
  EXPECT_EQ(expectPnxJSON(pnx.run({"keychain", "get", "pushQueue"})), expected);
  EXPECT_EQ(expectPnxJSON(pnx.run({"keychain", "rm", "pushQueue"})), expected);
  expectPnxFailure(pnx.run({"keychain", "get", "pushQueue"}), 1, "errSecItemNotFound (-25300)");
  expectPnxFailure(pnx.run({"keychain", "rm", "pushQueue"}), 1, "errSecItemNotFound (-25300)");
}

}  // namespace
