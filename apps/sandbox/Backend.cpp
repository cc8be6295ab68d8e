#include "sandbox/Backend.h"

#include <httplib.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "sandbox/Bodies.h"

namespace tarvo::sandbox {
namespace {

using Json = nlohmann::json;

constexpr const char* kHost = "127.0.0.1";
/// A batch is at most 1000 positions, well below 1 MiB; this leaves room for odd clients without inviting a flood.
constexpr std::size_t kLargestBody = 64 << 20;
/// An idle connection occupies a thread that `stop` waits for.
constexpr time_t kKeepAliveSeconds = 1;
constexpr time_t kReadSeconds = 30;

void answer(httplib::Response& response, int status, const Json& body) {
  response.status = status;
  response.set_content(body.dump(-1, ' ', false, Json::error_handler_t::replace), "application/json");
}

void refuse(httplib::Response& response, int status, const std::string& why) {
  if (status == 401) response.set_header("WWW-Authenticate", "Basic realm=\"sandbox\"");
  answer(response, status, {{"success", false}, {"error", why}});
}

}  // namespace

struct Backend::State {
  State(Account customer, const std::filesystem::path& file) : account(std::move(customer)), archive(file) {}

  void handlePost(const httplib::Request& request, httplib::Response& response) {
    const std::string base = "/api/v1/" + account.clientID + "/";
    if (request.path == base + "users") return handleUsers(request, response);
    if (request.path == base + "positions") return handlePositions(request, response);
    refuse(response, 404, "no such path");
  }

  void handleUsers(const httplib::Request& request, httplib::Response& response) {
    if (readBasicCredentials(request.get_header_value("Authorization")) !=
        Credentials{account.apiKey, account.apiSecret})
      return refuse(response, 401, "wrong API key or secret");
    std::string why;
    const auto device = readDevice(request.body, why);
    if (!device) return refuse(response, 400, why);
    const Identity user = archive.identify(*device);
    const Json result = {{"uuid", user.uuid}, {"creation_date", user.creationDate}, {"secretkey", user.secret}};
    answer(response, 200, {{"success", true}, {"results", Json::array({result})}});
  }

  void handlePositions(const httplib::Request& request, httplib::Response& response) {
    if (const int status = faults.meet()) return refuse(response, status, "planned fault");
    const auto user = readBasicCredentials(request.get_header_value("Authorization"));
    if (!user || !archive.knows(*user)) return refuse(response, 401, "unknown user");
    std::string why;
    const auto batch = readPositions(request.body, user->name, why);
    if (!batch) return refuse(response, 400, why);
    archive.store(user->name, *batch);
    answer(response, 200, {{"success", true}, {"last_prediction_id", 0}, {"last_pasttrip_id", 0}, {"last_poi_id", 0}});
  }

  const Account account;
  Archive archive;
  Faults faults;
  httplib::Server server;
  std::thread listener;
  std::string baseURL;
};

Backend::Backend(Account account, const std::filesystem::path& archive)
    : state_(std::make_unique<State>(std::move(account), archive)) {
  httplib::Server& server = state_->server;
  server.set_payload_max_length(kLargestBody);
  server.set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
  server.set_keep_alive_timeout(kKeepAliveSeconds);
  server.set_read_timeout(kReadSeconds);
  server.set_tcp_nodelay(true);
  server.Post(".*", [state = state_.get()](const httplib::Request& request, httplib::Response& response) {
    state->handlePost(request, response);
  });
  server.set_exception_handler([](const httplib::Request&, httplib::Response& response, std::exception_ptr failure) {
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& error) {
      refuse(response, 500, error.what());
    } catch (...) {
      refuse(response, 500, "unknown failure");
    }
  });
}

Backend::~Backend() { stop(); }

void Backend::start() {
  const int port = state_->server.bind_to_any_port(kHost);
  if (port < 0) throw std::runtime_error("no free port on 127.0.0.1");
  state_->baseURL = std::string("http://") + kHost + ":" + std::to_string(port) + "/api";
  state_->listener = std::thread([this] { state_->server.listen_after_bind(); });
  // The first answer shows that the server has come up; stopping it earlier would have no effect.
  httplib::Client(kHost, port).Get("/");
}

void Backend::stop() {
  if (!state_->listener.joinable()) return;
  state_->faults.close();
  state_->server.stop();
  state_->listener.join();
}

const std::string& Backend::baseURL() const { return state_->baseURL; }

Holdings Backend::holdings() { return state_->archive.holdings(); }

Faults& Backend::faults() { return state_->faults; }

}  // namespace tarvo::sandbox
