#include "sandbox/Backend.h"

#include <httplib.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <thread>
#include <utility>

#include "sandbox/Exchanges.h"
#include "sandbox/Sending.h"
#include "sandbox/Service.h"
#include "sandbox/live/Live.h"
#include "sandbox/live/Texts.h"
#include "sandbox/store/SqliteStore.h"

namespace tarvo::sandbox {
namespace {

/// A batch is at most 1000 positions, well below 1 MiB, a log of a day a few MiB; this leaves room for odd clients
/// without inviting a flood.
constexpr std::size_t kLargestBody = 64 << 20;
/// An idle connection occupies a thread that `stop` waits for.
constexpr time_t kKeepAliveSeconds = 1;
constexpr time_t kReadSeconds = 30;

/// Asked once by `start`, and no part of a run.
constexpr const char* kProbe = "/";

/// In front of the content type of a multipart body: the server would take such a body apart by itself, and refuse one
/// that goes on after its end.
constexpr const char* kRaw = "raw ";

httplib::Server::HandlerResponse leaveMultipartRaw(const httplib::Request& request, httplib::Response&) {
  if (request.is_multipart_form_data()) {
    // The request belongs to the server, which hands it out as constant but reads the body only after this.
    auto& headers = const_cast<httplib::Request&>(request).headers;
    headers.lower_bound("Content-Type")->second.insert(0, kRaw);
  }
  return httplib::Server::HandlerResponse::Unhandled;
}

std::string contentType(const httplib::Request& request) {
  std::string type = request.get_header_value("Content-Type");
  if (type.starts_with(kRaw)) type.erase(0, std::char_traits<char>::length(kRaw));
  return type;
}

void sendFailure(const httplib::Request&, httplib::Response& response, std::exception_ptr failure) {
  try {
    std::rethrow_exception(std::move(failure));
  } catch (const std::exception& error) {
    sendWhole(refuse(500, error.what()), response);
  } catch (...) {
    sendWhole(refuse(500, "unknown failure"), response);
  }
}

/// How many units may connect in the same moment: the system bounds it too.
constexpr int kBacklog = 1024;

std::filesystem::path besideArchive(std::filesystem::path archive) {
  const std::string name = archive.stem().string() + "-logs";
  return archive.replace_filename(name);
}

/// Some workers are left to units whatever pages and hosts there are, and some to people whatever units wait.
int forUnits(int workers) { return std::max(8, workers / 4); }
constexpr int kForPeople = 4;

std::unique_ptr<httplib::Server> makeServer(const Backend::Options& options) {
  if (options.certificate.empty()) return std::make_unique<httplib::Server>();
  auto server = std::make_unique<httplib::SSLServer>(options.certificate.c_str(), options.key.c_str());
  if (!server->is_valid())
    throw std::runtime_error("no TLS with " + options.certificate.string() + " and " + options.key.string());
  SSL_CTX_set_min_proto_version(server->ssl_context(), TLS1_2_VERSION);
  return server;
}

Backend::Options withToken(Backend::Options options) {
  if (options.token.empty() && !live::isLoopback(options.address)) options.token = live::newToken();
  return options;
}

/// The address as it stands in a URL for this machine.
std::string reachable(const std::string& address) {
  if (address == "0.0.0.0") return "127.0.0.1";
  if (address == "::") return "[::1]";
  return address.find(':') == std::string::npos ? address : "[" + address + "]";
}

}  // namespace

struct Backend::State {
  State(Account account, std::unique_ptr<Store> store, Options given, std::filesystem::path logFolder)
      : options(withToken(std::move(given))),
        logs(std::move(logFolder)),
        service(std::move(account), std::move(store)),
        live(service, {options.address, options.token, options.tiles, !options.certificate.empty(),
                       options.workers - forUnits(options.workers)}),
        server(makeServer(options)) {
    service.faults.waitAtMost(static_cast<std::size_t>(forUnits(options.workers) - kForPeople));
    server->new_task_queue = [workers = options.workers] {
      return new httplib::ThreadPool(static_cast<std::size_t>(workers));  // the server takes it over
    };
    server->set_payload_max_length(kLargestBody);
    server->set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
    server->set_keep_alive_timeout(kKeepAliveSeconds);
    server->set_read_timeout(kReadSeconds);
    server->set_tcp_nodelay(true);
    // Only this option: the server's own choice would let two backends share a port unnoticed.
    server->set_socket_options([this](int socket) {
      const int yes = 1;
      setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
      listening = socket;
    });
    server->set_pre_routing_handler(leaveMultipartRaw);
    const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
      handle(request, response);
    };
    server->Get(".*", handler);
    server->Post(".*", handler);
    server->Delete(".*", handler);
    server->set_exception_handler(sendFailure);
    server->set_post_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) { record(request, response); });
  }

  void handle(const httplib::Request& request, httplib::Response& response) {
    if (live::Live::owns(request.path)) return live.answer(request, response);
    const std::string authorization = request.get_header_value("Authorization"), type = contentType(request);
    Reply reply = service.answer({request.method, request.path, authorization, type, request.body, request.params});
    answered = {reply.user, reply.fault, reply.spoilt, reply.manner == Reply::Manner::drop};
    send(std::move(reply), service.faults, response);
  }

  /// A row for each request of the wire contract, also for those that are refused before they are looked at.
  void record(const httplib::Request& request, const httplib::Response& response) {
    const Answered facts = std::exchange(answered, {});
    if (live::Live::owns(request.path)) return;
    exchanges.add({request.method, request.target, contentType(request),
                   service.isAccount(request.get_header_value("Authorization")) ? "account" : "user", request.body,
                   response.body, response.status, facts.spoilt || service.canned.given()});
    try {
      service.store->addRequest({0, live::now(), facts.user, request.method, request.target,
                                 facts.drops ? 0 : response.status, static_cast<std::int64_t>(request.body.size()),
                                 facts.fault});
    } catch (const std::exception&) {  // the answer matters more than its row
    }
    if (facts.drops) closeConnection(request);
  }

  std::string origin() const {
    return (options.certificate.empty() ? "http://" : "https://") + reachable(options.address) + ":" +
           std::to_string(port);
  }

  /// What the log of requests says beside the answer: the thread that answers writes it down too.
  struct Answered {
    std::string user, fault;
    bool spoilt = false, drops = false;
  };
  static thread_local Answered answered;

  const Options options;
  const std::filesystem::path logs;
  Service service;
  Exchanges exchanges;
  live::Live live;
  std::unique_ptr<httplib::Server> server;
  std::thread listener;
  std::string baseURL;
  int port = 0, listening = -1;
};

thread_local Backend::State::Answered Backend::State::answered;

Backend::Backend(Account account, const std::filesystem::path& archive, std::filesystem::path logs) {
  if (logs.empty()) logs = besideArchive(archive);
  state_ = std::make_unique<State>(std::move(account), std::make_unique<SqliteStore>(archive, logs), Options(), logs);
}

Backend::Backend(Account account, std::unique_ptr<Store> store, Options options)
    : state_(
          std::make_unique<State>(std::move(account), std::move(store), std::move(options), std::filesystem::path())) {}

Backend::~Backend() { stop(); }

void Backend::start(int port) {
  httplib::Server& server = *state_->server;
  const std::string& address = state_->options.address;
  state_->port = port == 0 ? server.bind_to_any_port(address) : server.bind_to_port(address, port) ? port : -1;
  if (state_->port < 0)
    throw std::runtime_error(port == 0 ? "no free port on " + address
                                       : "port " + std::to_string(port) + " of " + address + " is not free");
  // The server listens with a backlog of 5, beyond which connections are lost.
  ::listen(state_->listening, kBacklog);
  state_->baseURL = state_->origin() + "/api";
  state_->listener = std::thread([this] { state_->server->listen_after_bind(); });
  // The first answer shows that the server has come up; stopping it earlier would have no effect.
  httplib::Client probe(state_->origin());
  probe.enable_server_certificate_verification(false);
  probe.Get(kProbe);
}

void Backend::stop() {
  if (!state_->listener.joinable()) return;
  state_->service.faults.close();
  state_->live.stop();
  state_->server->stop();
  state_->listener.join();
}

void Backend::serve(const Canned& canned) { state_->service.canned.serve(canned); }

const std::string& Backend::baseURL() const { return state_->baseURL; }

std::string Backend::origin() const { return state_->origin(); }

std::string Backend::pageURL() const {
  const std::string& token = state_->options.token;
  return state_->origin() + "/" + (token.empty() ? "" : "?token=" + token);
}

int Backend::port() const { return state_->port; }

const std::filesystem::path& Backend::logs() const { return state_->logs; }

Holdings Backend::holdings() { return state_->service.store->holdings(); }

Faults& Backend::faults() { return state_->service.faults; }

}  // namespace tarvo::sandbox
