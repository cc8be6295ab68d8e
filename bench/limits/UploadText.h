#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "limits/RawStore.h"
#include "limits/TextBuffer.h"

namespace tarvo::bench {

/// What a position's upload says.
struct UploadRow {
  std::int64_t key = 0;
  std::int64_t index = 0;
  std::string_view appName, method, serviceAction;
  double locationTimestamp = 0, eventTimestamp = 0;
  double longitude = 0, latitude = 0, accuracy = 0, speed = 0, course = 0, altitude = 0;
};

/// The body of an upload, byte for byte the SDK's.
class UploadText {
 public:
  explicit UploadText(std::string_view user) : user_(user) {}

  void clear() {
    text_.clear();
    separator_ = "[";
  }
  void add(const UploadRow& row);
  std::string_view finished() {
    text_.add("]");
    return text_.view();
  }

 private:
  std::string_view user_;
  std::string_view separator_ = "[";
  TextBuffer text_{1 << 20};
};

/// The oldest 1000 positions that were never posted.
class UnsentRows {
 public:
  explicit UnsentRows(RawStore& store);

  /// Calls `take(row)` for each; the row's texts live during the call.
  template <class Take>
  void forEach(Take take) {
    while (select_.step()) take(row());
    select_.reset();
  }

 private:
  UploadRow row() const;

  RawStatement select_;
};

}  // namespace tarvo::bench
