#include "platform/system/call_stack.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/dispatch/dispatch.h"
#include "platform/system/symbol_name.h"

namespace {

// Functions local to this file: dladdr can't name them, the symbol table can.
struct StackProbe {
  [[gnu::noinline]] std::vector<std::string> capture(int skipFrames);
};

std::vector<std::string> StackProbe::capture(int skipFrames) {
  std::vector<std::string> lines = pnx::callStackSymbols(skipFrames);
  asm volatile("" ::: "memory");  // no tail call: this frame must stay on the stack
  return lines;
}

[[gnu::noinline]] std::vector<std::string> captureFromFunction(int skipFrames) {
  std::vector<std::string> lines = StackProbe().capture(skipFrames);
  asm volatile("" ::: "memory");
  return lines;
}

// Splits at runs of spaces, as the platform's lines are laid out.
std::vector<std::string> columns(const std::string& line) {
  std::vector<std::string> parts;
  std::string part;
  for (char c : line + " ") {
    if (c != ' ') {
      part += c;
    } else if (!part.empty()) {
      parts.push_back(std::move(part));
      part.clear();
    }
  }
  return parts;
}

TEST(CallStackTest, LinesNameTheCallingFramesInThePlatformShape) {
  std::vector<std::string> lines = captureFromFunction(0);
  ASSERT_GE(lines.size(), 3u);

  std::vector<std::string> first = columns(lines[0]);
  ASSERT_EQ(first.size(), 7u) << lines[0];
  EXPECT_EQ(first[0], "0");
  EXPECT_EQ(first[1], "pnx_tests");
  EXPECT_EQ(first[2].substr(0, 2), "0x");
  EXPECT_EQ(first[2].size(), 18u);
  EXPECT_EQ(first[3] + " " + first[4], "-[StackProbe capture]");
  EXPECT_EQ(first[5], "+");
  EXPECT_GT(std::stoul(first[6]), 0u);

  std::vector<std::string> second = columns(lines[1]);
  ASSERT_EQ(second.size(), 6u) << lines[1];
  EXPECT_EQ(second[0], "1");
  EXPECT_EQ(second[3], "captureFromFunction");

  std::vector<std::string> skipped = captureFromFunction(1);
  ASSERT_FALSE(skipped.empty());
  EXPECT_EQ(columns(skipped[0])[3], "captureFromFunction");
  EXPECT_EQ(columns(skipped[0])[0], "0");
}

// The tests link the library's objects into their own executable, so its frames name that
// image; a program linked with the shared library sees "QuorvexMobilePushNotification"
// (the installed-consumer check covers that case).
TEST(CallStackTest, MembersAreBracketedAndTheirImageIsOneToken) {
  pnx::DispatchQueue queue("call-stack-test");
  std::vector<std::string> lines;
  queue.sync([&] { lines = pnx::callStackSymbols(); });
  bool foundWorker = false;
  for (const std::string& line : lines) {
    std::vector<std::string> parts = columns(line);
    if (parts.size() >= 5 && parts[3] + " " + parts[4] == "-[pnx::DispatchQueue workerLoop]") {
      foundWorker = true;
      EXPECT_EQ(parts[1], "pnx_tests");
    }
  }
  EXPECT_TRUE(foundWorker) << ::testing::PrintToString(lines);
}

TEST(SymbolNameTest, RendersMembersInBracketsAndOtherFunctionsByName) {
  const std::pair<const char*, const char*> cases[] = {
      {"PNXConfig::initWithDictionary(pnx::Value const&)", "-[PNXConfig initWithDictionary]"},
      {"NSError_PNX::errorWithCode(long, std::__cxx11::basic_string<char, "
       "std::char_traits<char>, std::allocator<char> > const&)",
       "-[NSError(PNX) errorWithCode]"},
      {"pnx::DispatchQueue::sync(std::function<void ()> const&) const",
       "-[pnx::DispatchQueue sync]"},
      {"std::vector<int, std::allocator<int> > pnx::Store<int>::load<int>(int) &&",
       "-[pnx::Store load]"},
      {"(anonymous namespace)::helper(int)", "helper"},
      {"pnx::callStackSymbols[abi:cxx11](int)", "pnx::callStackSymbols"},
      {"PNXLog::composeLines() [clone .cold]", "-[PNXLog composeLines]"},
      {"PNXLog::enqueue(long)::{lambda(int, char)#1}::operator()(int, char) const",
       "-[PNXLog::enqueue::{lambda#1} operator()]"},
      {"Suite_Case_Test::TestBody()", "-[Suite_Case_Test TestBody]"},
      {"PNXLog::~PNXLog()", "-[PNXLog ~PNXLog]"},
      {"main", "main"},
      {"", "???"},
  };
  for (const auto& [demangled, expected] : cases) {
    EXPECT_EQ(pnx::renderSymbol(demangled), expected) << demangled;
  }
}

}  // namespace
