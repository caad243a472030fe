#include "diagnostics/error_caller.h"

#include <cstring>
#include <utility>

#include "platform/system/call_stack.h"

namespace {

constexpr const char* kSeparators = " -[]+?.,";
// Frames of these classes are the record's own and the error factories'.
constexpr const char* kSkippedClasses[] = {"PNXErrorCaller", "NSError(PNX)"};

bool isSkippedFrame(const std::vector<std::string>& tokens) {
  if (tokens.size() <= 3) return false;
  for (const char* name : kSkippedClasses) {
    if (tokens[3] == name) return true;
  }
  return false;
}

}  // namespace

// The stack is captured here, in the record's own frame, so that everything between this
// frame and the one that asked for the error belongs to classes that are filtered out.
std::shared_ptr<PNXErrorCaller> PNXErrorCaller::errorCaller() {
  return std::shared_ptr<PNXErrorCaller>(new PNXErrorCaller(pnx::callStackSymbols()));
}

std::shared_ptr<PNXErrorCaller> PNXErrorCaller::errorCallerWithStack(
    std::vector<std::string> lines) {
  return std::shared_ptr<PNXErrorCaller>(new PNXErrorCaller(std::move(lines)));
}

PNXErrorCaller::PNXErrorCaller(std::vector<std::string> lines) {
  std::vector<std::string> symbol = findCallbackSymbol(std::move(lines));
  if (symbol.size() > 1) framework_ = symbol[1];
  if (symbol.size() > 2) address_ = symbol[2];
  if (symbol.size() > 3) classCaller_ = symbol[3];
  if (symbol.size() > 4) functionCaller_ = symbol[4];
}

std::vector<std::string> PNXErrorCaller::findCallbackSymbol() {
  return findCallbackSymbol(pnx::callStackSymbols());
}

std::vector<std::string> PNXErrorCaller::findCallbackSymbol(std::vector<std::string> lines) {
  std::vector<std::string> remaining;
  for (std::string& line : lines) {
    if (!isSkippedFrame(tokens(line))) remaining.push_back(std::move(line));
  }
  stack_ = std::move(remaining);
  if (stack_->empty()) return {};
  return tokens(stack_->front());
}

std::vector<std::string> PNXErrorCaller::tokens(const std::string& line) {
  std::vector<std::string> pieces;
  std::string piece;
  for (char c : line) {
    if (std::strchr(kSeparators, c) && c != '\0') {
      if (!piece.empty()) pieces.push_back(std::exchange(piece, {}));
    } else {
      piece.push_back(c);
    }
  }
  if (!piece.empty()) pieces.push_back(std::move(piece));
  return pieces;
}

std::string PNXErrorCaller::debugDescription() const {
  std::string text = "Caller Information:";
  if (framework_) text += "\nFramework: " + *framework_;
  if (address_) text += "\nAddress: " + *address_;
  if (classCaller_) text += "\nClass Caller: " + *classCaller_;
  if (functionCaller_) text += "\nFunction Caller: " + *functionCaller_;
  if (stack_) {
    text += "\nStack:\n";
    for (std::size_t i = 0; i < stack_->size(); ++i) {
      if (i > 0) text += "\n";
      text += (*stack_)[i];
    }
  }
  text += "\n";
  return text;
}
