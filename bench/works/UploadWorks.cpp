#include <deque>

#include "limits/UploadText.h"
#include "store/Locations.h"
#include "support/Process.h"
#include "support/Samples.h"
#include "support/Sdk.h"
#include "works/Pairs.h"

namespace tarvo::bench {
namespace {

platform::NSManagedObjectContext& context() { return parts().store.managedObjectContext(); }

std::string sdkText(const Locations::List& rows) { return Locations::convertToString(rows, kUser); }

Locations::List sdkRows() {
  Locations::List rows;
  context().performAndWait([&] { rows = Locations::getUnsentLocations(context()); });
  return rows;
}

/// Rows and text of the limit, the rows also kept for building the text alone.
struct LimitUpload {
  LimitUpload() : store(limitStore()), unsent(store) {
    unsent.forEach([this](UploadRow row) {
      for (std::string_view* part : {&row.appName, &row.method, &row.serviceAction}) *part = texts.emplace_back(*part);
      rows.push_back(row);
    });
  }

  std::string_view fetchedText() {
    text.clear();
    unsent.forEach([this](const UploadRow& row) { text.add(row); });
    return text.finished();
  }
  std::string_view builtText() {
    text.clear();
    for (const UploadRow& row : rows) text.add(row);
    return text.finished();
  }

  RawStore store;
  UnsentRows unsent;
  UploadText text{kUser};
  std::deque<std::string> texts;
  std::vector<UploadRow> rows;
};

LimitUpload& limit() {
  static auto* made = new LimitUpload;
  return *made;
}

/// Both texts must be the same, else the limit does other work. Before anything has been added to either store.
void checkTexts() {
  static const bool same = [] {
    activateSdk();
    bool equal = false;
    context().performAndWait([&] {
      const Locations::List rows = sdkRows();
      equal = rows.size() == 1000 && sdkText(rows) == limit().fetchedText() && sdkText(rows) == limit().builtText();
    });
    return equal;
  }();
  if (!same) fail("the upload texts of the SDK and of the limit differ");
}

void useResult(std::size_t size) {
  if (size < 1000) fail("an upload text is missing");
}

}  // namespace

void addUploadWorks(std::vector<Work>& works) {
  const auto add = [&works](const char* name, void (*once)()) {
    works.push_back({name, Work::Timing::cpu, 20, [once](std::int64_t items) {
                       checkTexts();
                       for (; items > 0; --items) once();
                     }});
  };
  add("fetch.sdk", [] { context().performAndWait([] { useResult(sdkText(sdkRows()).size()); }); });
  add("fetch.limit", [] { useResult(limit().fetchedText().size()); });
  add("text.sdk", [] {
    static const auto* rows = new Locations::List(sdkRows());
    context().performAndWait([] { useResult(sdkText(*rows).size()); });
  });
  add("text.limit", [] { useResult(limit().builtText().size()); });
}

}  // namespace tarvo::bench
