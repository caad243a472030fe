#include "diagnostics/error_caller.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diagnostics/errors.h"

namespace {

using Lines = std::vector<std::string>;

std::shared_ptr<PNXErrorCaller> recordOf(Lines lines) {
  return PNXErrorCaller::errorCallerWithStack(std::move(lines));
}

// A caller of the library: its frame is the one an error must name.
struct ServiceUnderTest {
  [[gnu::noinline]] pnx::ErrorPtr failToReachKeychain();
  int failures = 0;
};

pnx::ErrorPtr ServiceUnderTest::failToReachKeychain() {
  pnx::ErrorPtr error = NSError_PNX::keychainNotAvailable();
  ++failures;  // keeps the call from being a tail call
  return error;
}

TEST(ErrorCallerTest, SplitsAtTheSeparatorsDropsItsOwnFramesAndNamesTheFrameThatAsked) {
  EXPECT_EQ(PNXErrorCaller::tokens("4   SomeFramework   0x4a3c +[NSError(PNX) "
                                   "errorWithCode:description:underlyingError:userInfo:] + 120"),
            (Lines{"4", "SomeFramework", "0x4a3c", "NSError(PNX)",
                   "errorWithCode:description:underlyingError:userInfo:", "120"}));

  // A dotted image name shifts the tokens after it: the address becomes the class.
  auto dotted = recordOf({"0   libsystem_kernel.dylib   0x1f00 -[Foo bar] + 8"});
  EXPECT_EQ(dotted->framework(), "libsystem_kernel");
  EXPECT_EQ(dotted->address(), "dylib");
  EXPECT_EQ(dotted->classCaller(), "0x1f00");
  EXPECT_EQ(dotted->functionCaller(), "Foo");

  // Unknown symbols lose their question marks; a plain function gives name and offset.
  auto unknown = recordOf({"3   App   0x10 ??? + 77"});
  EXPECT_EQ(unknown->classCaller(), "77");
  EXPECT_FALSE(unknown->functionCaller());
  auto plain = recordOf({"7   App   0x99 main + 96"});
  EXPECT_EQ(plain->classCaller(), "main");
  EXPECT_EQ(plain->functionCaller(), "96");

  // Its own frames and the error factories' are dropped wherever they stand.
  const Lines kept = {"3   Lib   0x4 -[PNXKeychain objectForName] + 4", "4   Lib   0x5"};
  auto record = recordOf({"0   Lib   0x1 -[PNXErrorCaller findCallbackSymbol] + 1",
                          "1   Lib   0x2 -[PNXErrorCaller errorCaller] + 2",
                          "2   Lib   0x3 -[NSError(PNX) errorWithCode] + 3", kept[0], kept[1],
                          "5   Lib   0x6 -[NSError(PNX) keychainNotAvailable] + 6"});
  EXPECT_EQ(record->stack(), kept);
  EXPECT_EQ(record->debugDescription(),
            "Caller Information:\nFramework: Lib\nAddress: 0x4\nClass Caller: PNXKeychain\n"
            "Function Caller: objectForName\nStack:\n" +
                kept[0] + "\n" + kept[1] + "\n");

  auto empty = recordOf({"0   Lib   0x1 -[NSError(PNX) appKeyMissing] + 1"});
  ASSERT_TRUE(empty->stack());
  EXPECT_TRUE(empty->stack()->empty());
  EXPECT_FALSE(empty->framework());
  EXPECT_EQ(empty->debugDescription(), "Caller Information:\nStack:\n\n");

  ServiceUnderTest service;
  pnx::ErrorPtr error = service.failToReachKeychain();
  const std::string* text = error->userInfo()[pnx::NSDebugDescriptionErrorKey].asString();
  ASSERT_NE(text, nullptr);
  EXPECT_NE(text->find("Framework: pnx_tests\n"), std::string::npos) << *text;
  EXPECT_NE(text->find("Class Caller: ServiceUnderTest\nFunction Caller: failToReachKeychain\n"),
            std::string::npos)
      << *text;
  EXPECT_EQ(text->find("PNXErrorCaller"), std::string::npos) << *text;
  EXPECT_EQ(text->find("NSError(PNX)"), std::string::npos) << *text;
}

}  // namespace
