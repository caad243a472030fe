// How a stack line names a function: renderSymbol turns a demangled C++ name into the
// platform's shape. Member functions read "-[Class method]" (namespaces kept in the class,
// a class named Base_Category shown as "Base(Category)"), other functions their qualified
// name; parameter lists, template arguments, return types and ABI tags are dropped, so
// that the name holds none of the characters the caller record splits lines at.
// A qualifier counts as a class when it starts with an upper-case letter or is a lambda.
//
// Thread-safety: a pure function.
#pragma once

#include <string>

namespace pnx {

std::string renderSymbol(const std::string& demangledName);

}  // namespace pnx
