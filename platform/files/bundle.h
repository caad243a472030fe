// Bundle: a directory holding Info.plist and resources. The main bundle is the one the
// host names (pnx --bundle, or Bundle::setMain in tests); without one, there is no main
// bundle and lookups find nothing.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/value.h"

namespace pnx {

class Bundle {
 public:
  // Reads <path>/Info.plist (XML or binary); a missing or unreadable one gives an empty
  // information dictionary.
  explicit Bundle(std::string path);

  // nullptr when the host has named none.
  static std::shared_ptr<const Bundle> main();
  // Names the main bundle for this process (empty path: none). Call during set-up.
  static void setMain(const std::string& path);

  const std::string& bundlePath() const { return path_; }
  // Info.plist as a dictionary (possibly empty).
  const Value& infoDictionary() const { return info_; }
  const Value& objectForInfoDictionaryKey(std::string_view key) const { return info_[key]; }
  // CFBundleIdentifier, when it is a non-empty string.
  std::optional<std::string> bundleIdentifier() const;
  // <bundle>/<name>.<type> (or <name> when type is empty) when that file exists.
  std::optional<std::string> pathForResource(const std::string& name,
                                             const std::string& type) const;

 private:
  std::string path_;
  Value info_;
};

}  // namespace pnx
