#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

namespace tarvo {

// The daily files of the log, in the first documents directory. Threads: any. Errors: never any; what cannot be written
// is dropped.

using LogFilePath = std::shared_ptr<const std::string>;

/// The path of the log file of that name, if lines can be appended to it. Absent when the file did not exist: then this
/// creates it with its header and nothing else. Absent too when the name is no plain file name, or belongs to something
/// that is no regular file, or there is no documents directory.
LogFilePath logFileNamed(std::string_view name);

/// Appends the parts, one after the other, on the log's queue. A file that does not exist by then is not created.
void appendToLogFile(LogFilePath file, std::initializer_list<std::string_view> parts);

/// Lines of this process that should have become part of a file and did not.
std::uint64_t droppedLogLines();
/// What the log files of all days take.
std::uint64_t logFileBytes();

}  // namespace tarvo
