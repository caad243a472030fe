// The current thread's symbolised call stack, one line a frame, innermost first, in the
// platform's shape: frame number, image, 0x address, symbol, "+", offset, e.g.
//   "4   QuorvexMobilePushNotification  0x00007f3a1c2b4a3c -[PNXConfig initWithDictionary] + 120"
// C++ member functions are rendered in the bracket form "-[Class method]"; a class
// named Base_Category is shown as the category "Base(Category)"; plain functions by name.
#pragma once

#include <string>
#include <vector>

namespace pnx {

// skipFrames drops that many frames above the caller of callStackSymbols itself.
std::vector<std::string> callStackSymbols(int skipFrames = 0);

}  // namespace pnx
