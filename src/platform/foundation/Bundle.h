#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/platform/Value.h>

namespace tarvo::platform {

/// Where a resource lies: inside the library's own image.
struct ResourceURL {
  std::string text;        ///< "embedded:/<bundle>/<name>.<extension>"
  std::string_view bytes;  ///< lives as long as the library
};

/// A file that was built into the library (cmake/EmbedResource.cmake writes one as a constant).
struct EmbeddedResource {
  std::string_view name;
  std::string_view extension;
  std::string_view bytes;
};

/// What describes the host: a dictionary, or else the file of a property list.
struct HostInfo {
  std::optional<Dictionary> dictionary = {};
  std::filesystem::path file = {};
  bool operator==(const HostInfo&) const = default;
};
/// As <tarvo/platform/Environment.h> tells; from the first call on it cannot be set any more. Threads: any.
HostInfo hostInfo();

/// The host's description and the library's resources.
///
/// Threads: any. Bundles live as long as the process.
class Bundle {
 public:
  /// The host application: what describes it is read once, at the first touch. A file that is missing gives an empty
  /// dictionary; one that cannot be parsed as well, with a line in the system log.
  static const Bundle& main();
  /// A bundle that was added, or a null pointer.
  static const Bundle* withIdentifier(std::string_view identifier);
  /// Makes resources known under an identifier; a second call with the same identifier changes nothing.
  static void add(std::string identifier, std::vector<EmbeddedResource> resources);

  /// "CFBundleIdentifier" when it is a text.
  std::optional<std::string> bundleIdentifier() const;
  const Dictionary& infoDictionary() const { return info_; }
  std::optional<ResourceURL> url(std::string_view resource, std::string_view extension) const;

 private:
  Dictionary info_;
  std::vector<EmbeddedResource> resources_;
};

}  // namespace tarvo::platform
