// PNXErrorCaller: the record of who asked for an error. It captures the current thread's
// call stack, drops the frames of its own class and of the error factories (NSError(PNX)),
// and splits the first frame left into image, address, class and function. Its
// debugDescription is the block the error factories put under NSDebugDescriptionErrorKey.
//
// Stack lines are split at the characters " -[]+?.," with the empty pieces dropped; token 1
// is the image, 2 the address, 3 the class (or a plain function's name), 4 the method (or
// the offset after a plain function's name). The split is by characters only: an image
// name holding a full stop or a hyphen shifts the tokens after it.
//
// Thread-safety: the record is taken on the calling thread; a record is not changed after
// it is made unless its owner calls the setters, so it can be shared once built.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/export.h"
#include "platform/foundation/object.h"

class PNX_EXPORT PNXErrorCaller final : public pnx::Object {
 public:
  // A record of the frame that called into the code asking for it.
  static std::shared_ptr<PNXErrorCaller> errorCaller();
  // The same, made from the given stack lines instead of the current thread's.
  static std::shared_ptr<PNXErrorCaller> errorCallerWithStack(std::vector<std::string> lines);

  // Captures the current thread's stack and filters it as below.
  std::vector<std::string> findCallbackSymbol();
  // Filters the given lines into stack() and returns the tokens of the first line left
  // (empty when none is left).
  std::vector<std::string> findCallbackSymbol(std::vector<std::string> lines);
  static std::vector<std::string> tokens(const std::string& line);

  // "Caller Information:" and a line for each known piece, then the stack, then "\n".
  std::string debugDescription() const;

  const std::optional<std::vector<std::string>>& stack() const { return stack_; }
  const std::optional<std::string>& framework() const { return framework_; }
  const std::optional<std::string>& address() const { return address_; }
  const std::optional<std::string>& classCaller() const { return classCaller_; }
  const std::optional<std::string>& functionCaller() const { return functionCaller_; }
  void setStack(std::optional<std::vector<std::string>> stack) { stack_ = std::move(stack); }
  void setFramework(std::optional<std::string> value) { framework_ = std::move(value); }
  void setAddress(std::optional<std::string> value) { address_ = std::move(value); }
  void setClassCaller(std::optional<std::string> value) { classCaller_ = std::move(value); }
  void setFunctionCaller(std::optional<std::string> value) { functionCaller_ = std::move(value); }

  std::string className() const override { return "PNXErrorCaller"; }
  std::string description() const override { return debugDescription(); }

 private:
  explicit PNXErrorCaller(std::vector<std::string> lines);

  std::optional<std::vector<std::string>> stack_;
  std::optional<std::string> framework_;
  std::optional<std::string> address_;
  std::optional<std::string> classCaller_;
  std::optional<std::string> functionCaller_;
};
