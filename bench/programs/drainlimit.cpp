// The drain on SQLite and libcurl alone: select and text, marks, POST, acknowledgement for each 1000 positions.
// usage: bench_drainlimit HOME together|each   (the marks of a batch in one transaction, or each in one of its own)
#include <curl/curl.h>

#include <string>
#include <vector>

#include "limits/UploadText.h"
#include "support/Process.h"
#include "support/Samples.h"
#include "support/Sdk.h"

namespace {

using namespace tarvo::bench;

class Poster {
 public:
  explicit Poster(const std::string& url) {
    curl_easy_setopt(handle_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle_, CURLOPT_UPLOAD_BUFFERSIZE, 512L * 1024);
    curl_easy_setopt(handle_, CURLOPT_USERPWD, "user:secret");
    curl_easy_setopt(
        handle_, CURLOPT_WRITEFUNCTION,
        +[](char*, std::size_t size, std::size_t count, void*) { return size * count; });
  }
  ~Poster() { curl_easy_cleanup(handle_); }
  Poster(const Poster&) = delete;
  Poster& operator=(const Poster&) = delete;

  void post(std::string_view body) {
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, body.data());
    if (curl_easy_perform(handle_) != CURLE_OK) fail("the sink did not take a batch");
  }

 private:
  CURL* handle_ = curl_easy_init();
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) fail("usage: bench_drainlimit HOME together|each");
  const bool together = std::string_view(argv[2]) == "together";
  Sink sink;
  Poster poster(sink.url());
  RawStore store(storeIn(argv[1]));
  UnsentRows unsent(store);
  UploadText text(kUser);
  RawStatement begin(store, "BEGIN");
  RawStatement commit(store, "COMMIT");
  RawStatement mark(store, "UPDATE Locations SET sentWithoutACK = 1 WHERE _key = ?1");
  RawStatement acknowledge(store, "UPDATE Locations SET unsent = 0, sentWithoutACK = 0 WHERE _key BETWEEN ?1 AND ?2");
  std::vector<std::int64_t> keys;
  std::int64_t drained = 0;
  const double start = seconds();
  const double cpuStart = cpuSeconds();
  while (true) {
    keys.clear();
    text.clear();
    unsent.forEach([&](const UploadRow& row) {
      keys.push_back(row.key);
      text.add(row);
    });
    if (keys.empty()) break;
    if (together) begin.runOnce();
    for (const std::int64_t key : keys) {
      mark.bind(1, key);
      mark.runOnce();
    }
    if (together) commit.runOnce();
    poster.post(text.finished());
    acknowledge.bind(1, keys.front());
    acknowledge.bind(2, keys.back());
    acknowledge.runOnce();
    drained += static_cast<std::int64_t>(keys.size());
  }
  const std::string name = together ? "drain.limit" : "drain.each";
  report(name, static_cast<double>(drained) / (seconds() - start));
  report(name + ".cpu", (cpuSeconds() - cpuStart) * 1e6 / static_cast<double>(drained));
  report("memory.limit", peakKiB() / 1024);
}
