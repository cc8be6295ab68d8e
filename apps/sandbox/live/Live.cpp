#include "sandbox/live/Live.h"

#include <httplib.h>

#include <exception>
#include <utility>

#include "sandbox/live/Streams.h"
#include "sandbox/page/Page.h"

namespace tarvo::sandbox::live {
namespace {

Visit visitOf(const httplib::Request& request) {
  const auto header = [&](const char* name) { return request.get_header_value(name); };
  return {request.method,
          header("Host"),
          header("Origin"),
          header("Authorization"),
          header("Cookie"),
          header("Content-Type"),
          request.get_param_value("token")};
}

void send(Reply reply, httplib::Response& response) {
  response.status = reply.status;
  response.set_header("Cache-Control", "no-store");
  response.set_content(std::move(reply.body), "application/json");
}

Call callOf(const httplib::Request& request) {
  return {request.method, request.path, {}, {}, request.body, request.params};
}

}  // namespace

Live::Live(Service& service, Options options)
    : service_(service),
      options_(std::move(options)),
      policy_(page::policy(options_.tiles)),
      guard_(options_.address, options_.token),
      views_(service, options_.tiles),
      feed_(*service.store) {}

bool Live::owns(std::string_view path) {
  return path.starts_with("/live/") || path.starts_with("/channel/") || page::find(path) != nullptr;
}

void Live::answer(const httplib::Request& request, httplib::Response& response) {
  response.set_header("Content-Security-Policy", policy_);
  response.set_header("X-Content-Type-Options", "nosniff");
  response.set_header("Referrer-Policy", "no-referrer");
  if (request.path.starts_with("/channel/")) return answerChannel(request, response);
  if (const auto status = guard_.refuses(visitOf(request)))
    return send(refuse(*status, *status == 401 ? "the token of this sandbox is asked for" : "from another origin"),
                response);
  if (!request.path.starts_with("/live/")) return answerPage(request, response);
  if (request.path == "/live/events" && request.method == "GET") return stream(request, response, {});
  send(views_.answer(callOf(request)), response);
}

void Live::answerPage(const httplib::Request& request, httplib::Response& response) {
  if (request.method != "GET") return send(refuse(404, "no such path"), response);
  if (request.has_param("token") && !guard_.token().empty()) {
    // From here on the browser knows it, and the address bar does not.
    response.set_header("Set-Cookie", std::string(Guard::kCookie) + "=" + guard_.token() +
                                          "; Path=/; HttpOnly; SameSite=Strict" + (options_.secure ? "; Secure" : ""));
    return response.set_redirect(request.path, 303);
  }
  const page::File& file = *page::find(request.path);
  response.set_header("Cache-Control", "no-cache");
  response.set_content(file.bytes.data(), file.bytes.size(), std::string(file.type));
}

void Live::answerChannel(const httplib::Request& request, httplib::Response& response) {
  if (!service_.isAccount(request.get_header_value("Authorization"))) {
    response.set_header("WWW-Authenticate", "Basic realm=\"sandbox\"");
    return send(refuse(401, "wrong API key or secret"), response);
  }
  const std::string unit = views_.unitOfChannel(request.path);
  if (unit.empty()) return send(refuse(404, "no such unit"), response);
  if (request.method == "GET" && request.path == "/channel/" + unit) return stream(request, response, unit);
  send(views_.answer(callOf(request)), response);
}

void Live::stream(const httplib::Request& request, httplib::Response& response, const std::string& unit) {
  if (++streams_ > options_.mostStreams) {
    --streams_;
    response.set_header("Retry-After", "5");
    return send(refuse(503, "no room for another stream"), response);
  }
  // Given back with the stream, also when it could not be made.
  const auto place = std::shared_ptr<std::atomic<int>>(&streams_, [](std::atomic<int>* streams) { --*streams; });
  const std::string known = request.has_param("after") && !request.has_header("Last-Event-ID")
                                ? request.get_param_value("after")
                                : request.get_header_value("Last-Event-ID");
  const auto after = readNumber(known);
  const auto source = unit.empty() ? std::shared_ptr<Stream>(std::make_shared<PageStream>(service_, feed_, after))
                                   : std::make_shared<HostStream>(service_, feed_, after, unit);
  response.set_header("Cache-Control", "no-store");
  response.set_chunked_content_provider("text/event-stream",
                                        [source, place, isFirst = true](std::size_t, httplib::DataSink& sink) mutable {
                                          if (std::exchange(isFirst, false)) {
                                            constexpr std::string_view kHello = "retry: 1000\n\n";
                                            return sink.write(kHello.data(), kHello.size());
                                          }
                                          try {
                                            if (const auto text = source->next())
                                              return sink.write(text->data(), text->size());
                                          } catch (const std::exception&) {  // the store fails: who reads comes again
                                          }
                                          sink.done();
                                          return true;
                                        });
}

}  // namespace tarvo::sandbox::live
