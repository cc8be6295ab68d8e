#pragma once

#include <string>
#include <string_view>

namespace tarvo::sandbox::page {

/// A file of the page, as a server gives it.
struct File {
  std::string_view path;  ///< of the request: "/", "/page/main.js"
  std::string_view type;  ///< Content-Type
  std::string_view bytes;
};

/// The file that a GET of this path asks for, or nothing. They are parts of the program, and stay as they are.
const File* find(std::string_view path);

/// The Content-Security-Policy with which "/" has to be answered: the page loads from its own origin alone, runs no
/// code but its own files and makes no HTML of texts. `tiles` is the URL template of map tiles, of which the origin
/// is let in for images; empty without tiles. Errors: std::invalid_argument when it does not begin with an http or
/// https origin.
std::string policy(std::string_view tiles);

}  // namespace tarvo::sandbox::page
