#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "sandbox/store/Store.h"

namespace tarvo::sandbox {

/// The store that a URL names; without one, a SQLite file and a folder of logs in `directory`, which is made for this
/// user alone. Errors: std::runtime_error.
std::unique_ptr<Store> openStore(const std::string& url, const std::filesystem::path& directory);

}  // namespace tarvo::sandbox
