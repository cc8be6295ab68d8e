#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace tarvo::test {

/// A fresh folder that goes with the object.
class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "tarvo-test-XXXXXX").string();
    path_ = ::mkdtemp(name.data());
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace tarvo::test
