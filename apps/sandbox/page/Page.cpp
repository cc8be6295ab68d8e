#include "sandbox/page/Page.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "pageFiles.h"

namespace tarvo::sandbox::page {

const File* find(std::string_view path) {
  const auto* const found =
      std::find_if(kFiles.begin(), kFiles.end(), [&](const File& file) { return file.path == path; });
  return found == kFiles.end() ? nullptr : found;
}

std::string policy(std::string_view tiles) {
  std::string images = "'self' data:";
  if (!tiles.empty()) {
    const std::size_t scheme = tiles.starts_with("https://") ? 8 : tiles.starts_with("http://") ? 7 : 0;
    std::string host(tiles.substr(scheme, tiles.find('/', scheme) - scheme));
    if (host.starts_with("{s}.")) host.replace(0, 3, "*");
    const auto isOdd = [](char c) {
      return !(c >= 'a' && c <= 'z') && !(c >= 'A' && c <= 'Z') && !(c >= '0' && c <= '9') &&
             std::string_view("*.:-[]").find(c) == std::string_view::npos;
    };
    if (scheme == 0 || host.empty() || std::any_of(host.begin(), host.end(), isOdd))
      throw std::invalid_argument("tiles need an http or https URL: " + std::string(tiles));
    images.append(" ").append(tiles.substr(0, scheme)).append(host);
  }
  return "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src " + images +
         "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
         "require-trusted-types-for 'script'; trusted-types 'none'";
}

}  // namespace tarvo::sandbox::page
