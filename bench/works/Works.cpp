#include "works/Works.h"

#include <tarvo/Tarvo.h>

#include "log/Log.h"
#include "support/Process.h"
#include "support/Sdk.h"
#include "works/Pairs.h"

namespace tarvo::bench {
namespace {

std::filesystem::path limitStoreFile;

}  // namespace

void activateSdk() {
  static auto* tarvo = [] {
    auto* made = new Tarvo;
    made->activate(Tarvo::LOCAL_BACKGROUND);
    waitUntilIdle();
    return made;
  }();
  (void)tarvo;
}

const std::filesystem::path& limitStore() { return limitStoreFile; }

const std::vector<Work>& works(const std::filesystem::path& home) {
  static const auto* all = [&home] {
    useHome(home);
    limitStoreFile = home / "limit.sqlite";
    std::filesystem::copy_file(storeIn(home), limitStoreFile, std::filesystem::copy_options::overwrite_existing);
    auto* made = new std::vector<Work>;
    addIntakeWorks(*made);
    addUploadWorks(*made);
    addLogWorks(*made);
    return made;
  }();
  return *all;
}

void checkWorks() { checkIntakeWorks(); }

}  // namespace tarvo::bench
