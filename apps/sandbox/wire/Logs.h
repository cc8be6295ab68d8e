#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvo::sandbox {

/// A log file as it is uploaded: the body is the file itself, which begins with the header of its only part and ends
/// with a closing boundary.
struct LogUpload {
  std::string file;
  std::string_view content;  ///< of the body that was read
};

inline constexpr std::string_view kLogContentType = "multipart/form-data;boundary=boundary";

/// The one part of an upload body. What follows the first closing boundary is ignored: a file that is sent again has
/// one more each time. Absent when the body has no part header, no plain file name in it or no closing boundary.
std::optional<LogUpload> readLogUpload(std::string_view body, std::string& refusal);

}  // namespace tarvo::sandbox
