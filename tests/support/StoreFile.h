#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <string>

#include "platform/foundation/Files.h"

namespace tarvo::test {

/// What the file holds; nothing if it cannot be read.
inline std::string bytesOf(const std::filesystem::path& file) {
  auto bytes = platform::readFile(file);
  return bytes ? std::move(*bytes) : "";
}

/// As another program would, past the faults of a `FaultyDisk`: the first value of the last row, or the failure.
inline std::string ask(const std::filesystem::path& file, const std::string& sql) {
  const auto keep = [](void* kept, int, char** values, char**) {
    *static_cast<std::string*>(kept) = values[0] ? values[0] : "";
    return 0;
  };
  std::string value;
  sqlite3* database = nullptr;
  sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, "unix");
  if (sqlite3_exec(database, sql.c_str(), keep, &value, nullptr) != SQLITE_OK) value = sqlite3_errmsg(database);
  sqlite3_close(database);
  return value;
}

}  // namespace tarvo::test
