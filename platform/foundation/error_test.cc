#include "platform/foundation/error.h"

#include <gtest/gtest.h>

namespace pnx {
namespace {

TEST(ErrorTest, DescriptionsAndTheGenericFallback) {
  const std::string generic = "The operation couldn\u2019t be completed. (D error -2.)";
  EXPECT_EQ(Error("D", -2).description(), "Error Domain=D Code=-2 \"" + generic + "\"");
  // A description that is not a string does not count.
  EXPECT_EQ(Error("D", -2, Value::dict({{NSLocalizedDescriptionKey, 5}})).localizedDescription(),
            generic);
  // Anything but a dictionary is taken as an empty userInfo.
  EXPECT_EQ(Error("D", 1, Value("junk")).userInfo(), Value(Dictionary{}));
  EXPECT_TRUE(Error("D", 1).isEqual(Error("D", 1, Value())));

  EXPECT_EQ(Error::withDescription("D", 3, "Bad file", "/tmp/x")->description(),
            "Error Domain=D Code=3 \"Bad file\" "
            "UserInfo={NSFilePath=/tmp/x, NSLocalizedDescription=Bad file}");
  EXPECT_EQ(Error::withDescription("D", 3, "Bad")->userInfo().size(), 1u);
}

}  // namespace
}  // namespace pnx
