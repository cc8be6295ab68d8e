#include "Home.h"

#include <plist/plist.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>
#include <type_traits>

#include <tarvo/HostKeys.h>

#include "Console.h"

namespace tarvo::cli {
namespace {

namespace fs = std::filesystem;
using Node = std::unique_ptr<std::remove_pointer_t<plist_t>, void (*)(plist_t)>;

/// The library frees nested lists by recursion, so a list that could nest deep is not read.
constexpr std::uintmax_t kLargestPropertyList = 64 * 1024;

/// The file's dictionary, or an empty pointer.
Node readDictionary(const fs::path& file) {
  Node none(nullptr, plist_free);
  std::error_code failure;
  const std::uintmax_t size = fs::file_size(file, failure);
  if (failure || size > kLargestPropertyList) return none;
  std::ostringstream text;
  text << std::ifstream(file, std::ios::binary).rdbuf();
  const std::string bytes = text.str();
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
  Node node(root, plist_free);
  return root != nullptr && plist_get_node_type(root) == PLIST_DICT ? std::move(node) : std::move(none);
}

std::optional<std::string> textUnder(const Node& dictionary, const char* key) {
  plist_t item = dictionary ? plist_dict_get_item(dictionary.get(), key) : nullptr;
  if (item == nullptr || plist_get_node_type(item) != PLIST_STRING) return std::nullopt;
  char* text = nullptr;
  plist_get_string_val(item, &text);
  const std::unique_ptr<char, void (*)(void*)> owned(text, ::free);
  return std::string(text == nullptr ? "" : text);
}

void set(const Node& dictionary, const char* key, const std::optional<std::string>& text) {
  if (text) plist_dict_set_item(dictionary.get(), key, plist_new_string(text->c_str()));
}

Failure unusable(const fs::path& path, const std::error_code& why) {
  return {kUnusable, path.string() + ": " + why.message()};
}

}  // namespace

Home Home::temporary() {
  std::string name = (fs::temp_directory_path() / "tarvo-replay-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) throw unusable(name, {errno, std::generic_category()});
  return Home(name);
}

void Home::create() const {
  ::umask(S_IRWXG | S_IRWXO);
  std::error_code failure;
  fs::create_directories(directory_, failure);
  if (failure) throw Failure{kUnusable, "the home " + directory_.string() + " cannot be made: " + failure.message()};
}

void Home::writeKeys(const HostKeys& keys) const {
  Node dictionary = readDictionary(propertyList());
  if (!dictionary && hasPropertyList())
    throw Failure{kUnusable, propertyList().string() + " is no property list; it is left as it is"};
  if (!dictionary) dictionary.reset(plist_new_dict());
  if (!textUnder(dictionary, keys::kBundleIdentifier)) set(dictionary, keys::kBundleIdentifier, "org.tarvo.replay");
  set(dictionary, keys::kApiKey, keys.apiKey);
  set(dictionary, keys::kClientID, keys.clientID);
  char* text = nullptr;
  std::uint32_t size = 0;
  plist_to_xml(dictionary.get(), &text, &size);
  const std::unique_ptr<char, void (*)(void*)> owned(text, ::free);

  const fs::path fresh = propertyList().string() + ".new";
  std::ofstream file(fresh, std::ios::binary | std::ios::trunc);
  file.write(text, static_cast<std::streamsize>(size));
  file.close();
  if (!file) throw Failure{kUnusable, "the home " + directory_.string() + " cannot be written"};
  std::error_code failure;
  fs::rename(fresh, propertyList(), failure);
  if (failure) throw unusable(propertyList(), failure);
}

HostKeys Home::readKeys() const {
  const Node dictionary = readDictionary(propertyList());
  return {textUnder(dictionary, keys::kApiKey), textUnder(dictionary, keys::kClientID)};
}

bool Home::hasPropertyList() const {
  std::error_code ignored;
  return fs::exists(propertyList(), ignored);
}

void Home::requireStore() const {
  std::error_code failure;
  const bool isThere = fs::exists(store(), failure);
  if (failure) throw Failure{kUnusable, directory_.string() + " cannot be read: " + failure.message()};
  if (!isThere)
    throw Failure{kLeft, "nothing was collected in " + directory_.string() + ": there is no " + store().string()};
}

std::uint64_t Home::storeSize() const { return sizeOfDocuments(store().filename().string()); }

std::uint64_t Home::logSize() const { return sizeOfDocuments("TarvoLog_"); }

std::uint64_t Home::sizeOfDocuments(const std::string& prefix) const {
  std::uint64_t bytes = 0;
  std::error_code failure;
  for (fs::directory_iterator file(documents(), failure), end; !failure && file != end; file.increment(failure)) {
    if (!file->path().filename().string().starts_with(prefix)) continue;
    std::error_code gone;
    const std::uintmax_t size = file->file_size(gone);
    if (!gone) bytes += size;
  }
  return bytes;
}

}  // namespace tarvo::cli
