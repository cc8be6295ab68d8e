#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "sandbox/Service.h"
#include "sandbox/live/Feed.h"
#include "sandbox/live/Guard.h"
#include "sandbox/live/Views.h"

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace tarvo::sandbox::live {

/// The part of the server that is for people and for hosts: the page, what it asks below /live/, and /channel/.
///
/// A stream occupies a worker of the server for as long as it lasts, so there are at most `mostStreams`; the next is
/// answered with 503.
/// Threads: any. Errors: those of the store.
class Live {
 public:
  struct Options {
    std::string address = "127.0.0.1";  ///< that the server is bound to
    std::string token;                  ///< without one nothing is asked for
    std::string tiles;                  ///< URL template of map tiles, if any
    bool secure = false;                ///< the server speaks TLS
    int mostStreams = 1;
  };

  /// Errors: std::invalid_argument when the tiles have no http or https URL.
  Live(Service& service, Options options);

  /// Whether a request for this path is answered here.
  static bool owns(std::string_view path);
  void answer(const httplib::Request& request, httplib::Response& response);

  /// Ends the streams within moments, for good.
  void stop() { feed_.stop(); }

 private:
  void answerPage(const httplib::Request& request, httplib::Response& response);
  void answerChannel(const httplib::Request& request, httplib::Response& response);
  void stream(const httplib::Request& request, httplib::Response& response, const std::string& unit);

  Service& service_;
  const Options options_;
  const std::string policy_;
  Guard guard_;
  Views views_;
  Feed feed_;
  std::atomic<int> streams_ = 0;
};

}  // namespace tarvo::sandbox::live
