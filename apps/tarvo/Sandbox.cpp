// The command that serves a sandbox on its own.

#include <signal.h>
#include <spawn.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "Console.h"
#include "sandbox/Backend.h"
#include "sandbox/store/OpenStore.h"
#include "sandbox/wire/BoundedJson.h"

namespace tarvo::cli {
namespace {

namespace fs = std::filesystem;

/// Threads of the server. A page or a connected host occupies one while it looks, a unit while it sends.
constexpr int kWorkers = 160;

struct SandboxOptions {
  int port = 8484;
  sandbox::Backend::Options server;
  std::optional<std::string> data, canned, faults, secretFile;
  std::string store;
  std::vector<std::string> tls;
  std::string clientID = "demo", apiKey = "demo-key", apiSecret = "demo-secret";
  bool open = false;
};

fs::path defaultData() {
  const auto folder = [](const char* variable) {
    const char* const text = std::getenv(variable);
    return fs::path(text == nullptr ? "" : text);
  };
  if (const fs::path data = folder("XDG_DATA_HOME"); data.is_absolute()) return data / "tarvo-sandbox";
  if (const fs::path home = folder("HOME"); home.is_absolute()) return home / ".local/share/tarvo-sandbox";
  throw Failure{kUsage, "neither --data nor HOME says where to keep what is sent"};
}

/// From here on these signals wait for `sigwait`, in every thread.
sigset_t holdSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  return signals;
}

void openPage(std::string url) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  std::string program = "xdg-open";
  char* arguments[] = {program.data(), url.data(), nullptr};
  pid_t child = 0;
  if (::posix_spawnp(&child, program.c_str(), nullptr, &attributes, arguments, ::environ) != 0)
    note("xdg-open is not there; open the page by hand");
  posix_spawnattr_destroy(&attributes);
}

/// The file's text without the end of its line.
std::string readSecret(const std::string& file) {
  auto text = readRegularFile(file);
  if (!text) throw Failure{kUsage, file + ": cannot be read"};
  text->erase(std::find_if(text->begin(), text->end(), [](char c) { return c == '\n' || c == '\r'; }), text->end());
  if (text->empty()) throw Failure{kUsage, file + " holds no secret"};
  return *text;
}

int serve(SandboxOptions options) {
  if (options.secretFile) options.apiSecret = readSecret(*options.secretFile);
  if (!options.tls.empty()) {
    options.server.certificate = options.tls[0];
    options.server.key = options.tls[1];
  }
  options.server.workers = kWorkers;
  const sigset_t signals = holdSignals();
  std::unique_ptr<sandbox::Backend> backend;
  try {
    const fs::path data = options.data || !options.store.empty() ? fs::path(options.data.value_or("")) : defaultData();
    backend = std::make_unique<sandbox::Backend>(sandbox::Account{options.clientID, options.apiKey, options.apiSecret},
                                                 sandbox::openStore(options.store, data), options.server);
    if (options.faults)
      for (sandbox::Rule& rule : sandbox::readRules(*options.faults)) backend->faults().add(std::move(rule));
    if (options.canned) backend->serve(sandbox::readCanned(*options.canned));
    backend->start(options.port);
    if (options.store.empty()) note("what is sent is kept in " + data.string());
  } catch (const Failure&) {
    throw;
  } catch (const std::exception& error) {
    throw Failure{kUnusable, std::string("the sandbox cannot serve: ") + error.what()};
  }
  print("backend  " + backend->baseURL());
  print("page     " + backend->pageURL());
  if (options.open) openPage(backend->pageURL());
  int signal = 0;
  sigwait(&signals, &signal);
  // A second one ends the process as usual.
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  backend->stop();
  return kDone;
}

}  // namespace

void addSandboxCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<SandboxOptions>();
  CLI::App* command = app.add_subcommand("sandbox", "Serves a backend to develop against, and a page that shows it");
  command->footer(
      "Runs until it is interrupted or told to end; what was answered is kept, and a later start goes on with it.\n"
      "Exit status: 0 ended; 2 wrong usage; 3 it cannot serve.");
  command->add_option("--port", options->port, "Port; 0 is any free one")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command
      ->add_option("--bind", options->server.address,
                   "Address to bind to; elsewhere than on loopback the page asks for a token")
      ->type_name("ADDRESS")
      ->capture_default_str();
  auto* data =
      command->add_option("--data", options->data, "Holds what is sent [tarvo-sandbox in the user's data folder]")
          ->type_name("DIR");
  command->add_option("--store", options->store, "A database in place of the folder")->excludes(data)->type_name("URL");
  command->add_option("--tls", options->tls, "Certificate chain and key, PEM files")
      ->expected(2)
      ->type_name("CERT KEY");
  command->add_option("--token", options->server.token, "Asked for by the page [made anew where it is needed]")
      ->envname("TARVO_SANDBOX_TOKEN");
  command->add_option("--tiles", options->server.tiles, "Map tiles for the page, https://host/{z}/{x}/{y}.png")
      ->type_name("URL");
  command->add_option("--client-id", options->clientID, "Client identifier")->capture_default_str();
  command->add_option("--api-key", options->apiKey, "API key")->capture_default_str();
  command->add_option("--api-secret-file", options->secretFile, "Holds the secret of the API key [demo-secret]")
      ->type_name("FILE");
  command
      ->add_option("--backend", options->canned,
                   "Prediction, past trips and places to answer with (JSON) [derived from the positions]")
      ->type_name("FILE");
  command->add_option("--faults", options->faults, "What goes wrong, a JSON array of rules: docs/sandbox.md")
      ->type_name("FILE");
  command->add_flag("--open", options->open, "Open the page");
  command->callback([options, &run] { run = [options] { return serve(*options); }; });
}

}  // namespace tarvo::cli
