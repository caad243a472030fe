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

  EXPECT_EQ(Error::withDescription("D", 3, "Bad file", "/tmp/x")->description(),
            "Error Domain=D Code=3 \"Bad file\" "
            "UserInfo={NSFilePath=/tmp/x, NSLocalizedDescription=Bad file}");
  EXPECT_EQ(Error::withDescription("D", 3, "Bad")->userInfo().size(), 1u);
}

TEST(ErrorTest, EqualityAndHashingByValue) {
  Value a(ObjectPtr(Error::withDescription("D", 1, "x")));
  Value same(ObjectPtr(Error::withDescription("D", 1, "x")));
  EXPECT_EQ(a, same);
  EXPECT_EQ(a.hash(), same.hash());
  for (ErrorPtr other : {Error::withDescription("D", 1, "y"), Error::withDescription("E", 1, "x"),
                         Error::withDescription("D", 2, "x")}) {
    EXPECT_NE(a, Value(ObjectPtr(other))) << other->description();
  }
  EXPECT_TRUE(Error("D", 1).isEqual(Error("D", 1, Value())));

  // Exceptions compare by name and reason; userInfo does not matter.
  Value e1(ObjectPtr(std::make_shared<Exception>("N", "R", Value::dict({{"k", 1}}))));
  Value e2(ObjectPtr(std::make_shared<Exception>("N", "R")));
  EXPECT_EQ(e1, e2);
  EXPECT_EQ(e1.hash(), e2.hash());
  EXPECT_NE(e1, Value(ObjectPtr(std::make_shared<Exception>("N", "other"))));
  EXPECT_NE(a, e1);
}

}  // namespace
}  // namespace pnx
