// PNXConfig::pathForDatabase: where database files live, and moving them there.
//
// Private storage keeps databases in <Library>/pnx.mobile-push, out of the user's sight;
// public storage keeps them in <Documents>. Files that an earlier version (directly in
// <Library>) or an earlier setting left elsewhere are moved over; a move never overwrites,
// so when both places hold a file the move fails, is logged, and both files stay.

#include "config/config.h"
#include "diagnostics/log.h"
#include "platform/files/container.h"
#include "platform/files/file_manager.h"

namespace {

constexpr const char* kPrivateDirectoryName = "pnx.mobile-push";

struct DatabasePaths {
  std::string publicPath;      // <Documents>/<name>
  std::string oldPrivatePath;  // <Library>/<name>
  std::string privateDirectory;
  std::string privatePath;  // <Library>/pnx.mobile-push/<name>
};

DatabasePaths databasePaths(const std::string& name) {
  DatabasePaths paths;
  const std::string library = pnx::Container::libraryDirectory();
  paths.publicPath = pnx::pathByAppendingComponent(pnx::Container::documentsDirectory(), name);
  paths.oldPrivatePath = pnx::pathByAppendingComponent(library, name);
  paths.privateDirectory = pnx::pathByAppendingComponent(library, kPrivateDirectoryName);
  paths.privatePath = pnx::pathByAppendingComponent(paths.privateDirectory, name);
  return paths;
}

// Moves `from` to `to` when a file exists at `from`, logging `found` before and
// `failed` (source, destination, reason) when the move does not happen.
void moveIfPresent(const std::string& name, const std::string& from, const std::string& to,
                   const char* found, const char* failed) {
  pnx::FileManager& files = pnx::FileManager::current();
  if (!files.fileExists(from)) return;
  PNXLogVerbose(found, name);
  pnx::ErrorPtr error;
  if (!files.moveItem(from, to, &error)) {
    PNXLogError(failed, from, to, error ? error->localizedDescription() : std::string());
  }
}

void createPrivateDirectoryIfNeeded(const std::string& directory) {
  pnx::FileManager& files = pnx::FileManager::current();
  if (files.fileExists(directory)) return;
  pnx::ErrorPtr error;
  if (!files.createDirectory(directory, true, pnx::FileAttributes(), &error)) {
    PNXLogError("Couldn't create private directory %@: %@", directory,
                error ? error->localizedDescription() : std::string());
  }
}

}  // namespace

std::string PNXConfig::pathForDatabase(const std::string& name) {
  const DatabasePaths paths = databasePaths(name);
  std::lock_guard lock(databaseMutex_);
  if (privateDatabaseStorage()) {
    PNXLogVerbose("Using Private Path for database %@ -> %@", name, paths.privatePath);
    createPrivateDirectoryIfNeeded(paths.privateDirectory);
    moveIfPresent(name, paths.oldPrivatePath, paths.privatePath,
                  "Old private database found for %@, moving to private path.",
                  "Couldn't move old database at %@ to %@: %@");
    moveIfPresent(name, paths.publicPath, paths.privatePath,
                  "Public database found for %@, moving to private path.",
                  "Couldn't move public database at %@ to %@: %@");
    return paths.privatePath;
  }
  PNXLogVerbose("Using Public Path for database %@ -> %@", name, paths.publicPath);
  moveIfPresent(name, paths.oldPrivatePath, paths.publicPath,
                "Old Private database found for %@, moving to public path.",
                "Couldn't move old private database at %@ to %@: %@");
  moveIfPresent(name, paths.privatePath, paths.publicPath,
                "Private database found for %@, moving to public path.",
                "Couldn't move private database at %@ to %@: %@");
  return paths.publicPath;
}
