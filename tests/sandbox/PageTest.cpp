#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "sandbox/page/Page.h"

namespace tarvo::sandbox::page {
namespace {

TEST(Page, LetsInTheOriginOfTheTilesAndNothingElse) {
  const struct {
    const char *tiles, *images;  // nullptr: refused
  } cases[] = {
      {"", "img-src 'self' data:;"},
      {"https://tiles.example:8443/{z}/{x}/{y}.png?key=1", "img-src 'self' data: https://tiles.example:8443;"},
      {"https://{s}.tiles.example/{z}/{x}/{y}.png", "img-src 'self' data: https://*.tiles.example;"},
      {"http://[::1]:80/{z}", "img-src 'self' data: http://[::1]:80;"},
      {"https://a.example; script-src *", nullptr},
      {"https://a.example 'unsafe-inline'/{z}", nullptr},
      {"javascript:alert(1)", nullptr},
      {"https:///{z}", nullptr},
  };
  for (const auto& [tiles, images] : cases) {
    if (images == nullptr) {
      EXPECT_THROW(policy(tiles), std::invalid_argument) << tiles;
      continue;
    }
    const std::string header = policy(tiles);
    EXPECT_NE(header.find(images), std::string::npos) << header;
    EXPECT_NE(header.find("script-src 'self';"), std::string::npos) << header;
  }
}

}  // namespace
}  // namespace tarvo::sandbox::page
