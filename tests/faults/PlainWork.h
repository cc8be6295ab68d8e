#pragma once

#include <tarvo/platform/Device.h>
#include <tarvo/platform/UserDefaults.h>

#include "faults/StoreWork.h"
#include "log/Log.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/urlsession/TransferJournal.h"
#include "settings/Settings.h"
#include "support/LogDiary.h"

namespace tarvo::faults {

/// A process that works with the files beside the store.
struct PlainWork {
  explicit PlainWork(const fs::path& home) : transfers(home / "Library/Transfers", "j") {
    platform::setHomeDirectory(home);
    platform::setDocumentDirectories({home / "Documents"});
    platform::Clock::install(std::make_shared<platform::ManualClock>(platform::dateSince1970(1.7e9)));
    Settings::shared().userUUID.set("u");
    platform::UserDefaults::standard().set("tarvologlevel", 6);
  }
  void use(int number);

  platform::TransferJournal transfers;
  /// Without a journal from its start, a process goes on without it, and says so.
  const bool journals = test::LogDiary::installed().count("transfers are not journalled") == 0;
};

/// One of them: what each use of a number does with it, and whether bytes hold what that has left.
struct PlainFile {
  const char* path;  ///< in the home
  void (*use)(PlainWork& work, int number);
  bool (*holds)(const std::string& bytes, int number);
};

constexpr std::int64_t kOver = 99;  ///< an upload that does not last

inline const PlainFile kPlainFiles[] = {
    {"Library/identifierForVendor", [](PlainWork&, int) { (void)platform::UIDevice::current().identifierForVendor(); },
     [](const std::string& bytes, int) { return bytes.size() == 36; }},
    {"Library/Preferences/defaults.plist",
     [](PlainWork&, int number) { platform::UserDefaults::standard().set("number", number); },
     [](const std::string& bytes, int number) {
       auto list = platform::parsePropertyList(bytes);
       return list && list->asDictionary() && platform::findInteger(*list->asDictionary(), "number") == number;
     }},
    {"Library/Transfers/j.jsonl",
     [](PlainWork& work, int number) {
       work.transfers.putResumed({kOver, {"http://a/" + std::string(70'000, 'a'), "POST"}, "/f"});
       work.transfers.remove(kOver);  // so much is over that it is written anew
       work.transfers.putResumed({number, {"http://a/", "POST"}, "/f"});
       work.transfers.flush();
     },
     [](const std::string& bytes, int number) {
       bool holds = true;
       for (int each = std::min(number, 3); each <= number; ++each)
         holds &= bytes.find(platform::concat("\"identifier\":", each, ",")) != std::string::npos;
       return holds;
     }},
    {"Documents/TarvoLog_2023-11-14_u_IOS.txt",
     [](PlainWork&, int number) {
       Log::error("use ", number);
       (void)platform::WorkInFlight::waitUntilIdle(platform::Seconds(30));
     },
     [](const std::string& bytes, int number) {
       return bytes.ends_with(platform::concat("[ERROR]:use ", number, "\n"));
     }},
};

inline const PlainFile *const kIdentifier = &kPlainFiles[0], *const kSettings = &kPlainFiles[1],
                              *const kJournal = &kPlainFiles[2];

inline void PlainWork::use(int number) {
  for (const PlainFile& file : kPlainFiles) file.use(*this, number);
}

}  // namespace tarvo::faults
