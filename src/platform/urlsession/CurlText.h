#pragma once

#include <curl/curl.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tarvo::platform {

struct CurlURLCleanup {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using CurlURL = std::unique_ptr<CURLU, CurlURLCleanup>;

struct CurlListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlList = std::unique_ptr<curl_slist, CurlListFree>;

inline std::optional<std::string> urlPart(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return std::nullopt;
  std::string out(text);
  curl_free(text);
  return out;
}

/// ASCII letters only, whatever the locale.
inline bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && (a.empty() || curl_strnequal(a.data(), b.data(), a.size()) != 0);
}

}  // namespace tarvo::platform
