// Fuzzes the keyed unarchiver on arbitrary bytes: it either raises the unarchive exception
// or returns a value, never crashes or hangs. A value it returns must archive again, and
// the archive of that must read back to the same archive (the writer is deterministic).

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "platform/foundation/error.h"
#include "platform/foundation/keyed_archive.h"

namespace {

pnx::Data archiveOrAbort(const pnx::Value& value) {
  auto archive = pnx::KeyedArchiver::archivedDataWithRootObject(value);
  if (!archive) std::abort();
  return *archive;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  pnx::Value value;
  try {
    value = pnx::KeyedUnarchiver::unarchiveObjectWithData(pnx::Data(data, data + size));
  } catch (const pnx::Exception& exception) {
    if (exception.name() != pnx::NSInvalidUnarchiveOperationException) std::abort();
    return 0;
  }
  pnx::Data once = archiveOrAbort(value);
  pnx::Data twice = archiveOrAbort(pnx::KeyedUnarchiver::unarchiveObjectWithData(once));
  if (once != twice) std::abort();
  return 0;
}
