#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>

#include "platform/foundation/Files.h"

namespace tarvo::platform {

/// A file as the body of a request: opened and measured once, then read, and read again when a request is repeated.
/// What is appended later is not part of it.
///
/// Threads: one at a time. Owns the open file. Errors: as told by each operation.
class UploadFile {
 public:
  explicit UploadFile(std::filesystem::path path) : path_(std::move(path)) {}

  /// Goes to the beginning, of a regular file only; a symbolic link is none. The first call opens the file and takes
  /// its length. Answers 0 or the errno.
  int rewind();
  /// The code of a transfer whose file cannot be opened for that errno.
  static int urlErrorOf(int systemError);
  std::uint64_t length() const { return length_; }

  void seek(std::uint64_t offset) { offset_ = offset; }
  /// Fills the buffer as far as the length goes: 0 at its end. Absent when the file holds less or cannot be read.
  std::optional<std::size_t> read(char* buffer, std::size_t size);

 private:
  std::filesystem::path path_;
  Descriptor descriptor_;
  std::uint64_t length_ = 0;
  std::uint64_t offset_ = 0;
};

/// From the present working directory: a path that is kept must mean the same file after a change of directory, and to
/// the process that takes a transfer up. As it is when there is no such directory.
std::filesystem::path absolutePath(std::filesystem::path file);

}  // namespace tarvo::platform
