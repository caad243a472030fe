// The simulated device and the running process's sandbox container.
//
//   <device>/keychain.db                    every keychain item of the device
//   <device>/notifications/<bundle id>.db   categories each app has registered
//   <device>/containers/<bundle id>/        Documents/, Library/, tmp/ of each app
//
// The device directory is named by the host (pnx --device, $PNX_DEVICE, else
// $XDG_DATA_HOME/pnx/device or ~/.local/share/pnx/device). The container belongs to the
// main bundle's identifier ("unknown.bundle" when there is none). Directories are
// created on demand, private to the user (0700).
#pragma once

#include <string>

#include "platform/foundation/error.h"

namespace pnx {

class Device {
 public:
  static std::string directory();
  // Names the device directory for this process (empty: back to the default). Call
  // during set-up.
  static void setDirectory(const std::string& path);
  // The default when the host names none: $PNX_DEVICE, else the user's data directory.
  static std::string defaultDirectory();
  // Creates the device directory (and what leads to it) 0700 when missing, and refuses one
  // that group or others can write, where another user could put their own files (or a
  // symbolic link) in place of the device's databases: false and *error naming the path.
  static bool preparePrivateDirectory(ErrorPtr* error);
};

class Container {
 public:
  // <device>/containers/<bundle id>, created on demand.
  static std::string root();
  static std::string documentsDirectory();
  static std::string libraryDirectory();
  static std::string temporaryDirectory();
};

}  // namespace pnx
