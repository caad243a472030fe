#include "platform/system/call_stack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "platform/dispatch/dispatch.h"
#include "platform/system/symbol_name.h"

namespace {

// Functions local to this file: dladdr can't name them, the symbol table can.
struct StackProbe {
  [[gnu::noinline]] std::vector<std::string> capture(int skipFrames) {
    std::vector<std::string> lines = pnx::callStackSymbols(skipFrames);
    asm volatile("" ::: "memory");  // no tail call: this frame must stay on the stack
    return lines;
  }
};

[[gnu::noinline]] std::vector<std::string> captureFromFunction(int skipFrames) {
  std::vector<std::string> lines = StackProbe().capture(skipFrames);
  asm volatile("" ::: "memory");
  return lines;
}

// "<index> <image> 0x<16 hex digits> <symbol> + <offset>", members in brackets; library
// frames name pnx_tests, which links the library's objects itself.
std::regex frame(const std::string& index, const std::string& symbol) {
  return std::regex(index + " +pnx_tests +0x[0-9a-f]{16} " + symbol + " \\+ [1-9][0-9]*");
}

TEST(CallStackTest, LinesNameTheCallingFramesInThePlatformShape) {
  std::vector<std::string> lines = captureFromFunction(0);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_TRUE(std::regex_match(lines[0], frame("0", "-\\[StackProbe capture\\]"))) << lines[0];
  EXPECT_TRUE(std::regex_match(lines[1], frame("1", "captureFromFunction"))) << lines[1];

  lines = captureFromFunction(1);  // skips the probe's own frame
  EXPECT_TRUE(std::regex_match(lines.at(0), frame("0", "captureFromFunction"))) << lines[0];

  // Frames of the library's own members, on a thread of its own.
  pnx::DispatchQueue queue("call-stack-test");
  queue.sync([&] { lines = pnx::callStackSymbols(); });
  const std::regex worker = frame("[0-9]+", "-\\[pnx::DispatchQueue workerLoop\\]");
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
    return std::regex_match(line, worker);
  })) << ::testing::PrintToString(lines);
}

TEST(SymbolNameTest, RendersMembersInBracketsAndOtherFunctionsByName) {
  const std::pair<const char*, const char*> cases[] = {
      {"NSError_PNX::errorWithCode(long, std::string const&)", "-[NSError(PNX) errorWithCode]"},
      {"pnx::DispatchQueue::sync(std::function<void ()> const&) const",
       "-[pnx::DispatchQueue sync]"},
      {"std::vector<int, std::allocator<int> > pnx::Store<int>::load<int>(int) &&",
       "-[pnx::Store load]"},
      {"(anonymous namespace)::helper(int)", "helper"},
      {"pnx::callStackSymbols[abi:cxx11](int)", "pnx::callStackSymbols"},
      {"PNXLog::composeLines() [clone .cold]", "-[PNXLog composeLines]"},
      {"PNXLog::enqueue(long)::{lambda(int, char)#1}::operator()(int, char) const",
       "-[PNXLog::enqueue::{lambda#1} operator()]"},
      {"PNXLog::~PNXLog()", "-[PNXLog ~PNXLog]"},
      {"main", "main"},
      {"", "???"},
  };
  for (const auto& [demangled, expected] : cases) {
    EXPECT_EQ(pnx::renderSymbol(demangled), expected) << demangled;
  }
}

}  // namespace
