// Many units that speak the wire to sandboxes at once: each sends to all of them, in an order of its own, over several
// days, some batches twice; then every number is read back, at another sandbox than it was sent to.
// usage: fleet UNITS BATCHES ORIGIN... [UUID=COUNT...]   those units have sent so many positions by themselves
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

using Json = nlohmann::json;

namespace {

constexpr int kBatch = 100;
std::vector<std::string> origins;
std::atomic<int> failures = 0;

void fail(const std::string& what) {
  if (failures++ < 10) std::printf("%s\n", what.c_str());
}

struct Unit {
  explicit Unit(int n) : number(n) {
    for (const std::string& origin : origins) clients.emplace_back(origin);
    for (httplib::Client& client : clients) client.set_keep_alive(true), client.set_read_timeout(120);
  }

  Json post(int sandbox, const std::string& path, const Json& body, const std::string& name,
            const std::string& secret) {
    const auto answer = clients[static_cast<std::size_t>(sandbox) % clients.size()].Post(
        "/api/v1/demo/" + path, {httplib::make_basic_authentication_header(name, secret)}, body.dump(),
        "application/json");
    if (answer && answer->status == 200) return Json::parse(answer->body);
    fail(path + ": " + (answer ? answer->body : httplib::to_string(answer.error())));
    return {{"results", {{{"uuid", ""}, {"secretkey", ""}}}}};
  }

  Json position(int id) const {
    Json json;
    for (const char* key :
         {"app_name", "acc", "speed", "bearing", "alt", "provider", "service_action", "terramesh_data_version"})
      json[key] = "1";
    char date[64];
    std::snprintf(date, sizeof date, "2024-06-%02d 10:%02d:%02d +0000", 1 + id / kBatch % 28, id / 60 % 60, id % 60);
    json["date_localisation"] = json["date_mobile"] = date;
    json.update({{"unique_position_id_for_app", std::to_string(id)}, {"useruuid", uuid}});
    json.update({{"lon", std::to_string(number)}, {"lat", std::to_string(id % 90)}});
    return json;
  }

  void send(int batches) {
    const Json device = {{"mobileos", "ios"},
                         {"mobileid", "fleet-" + std::to_string(number)},
                         {"phone_description", "fleet"},
                         {"sensors", "none"}};
    const Json user = post(number, "users", device, "demo-key", "demo-secret")["results"][0];
    uuid = user["uuid"];
    for (int i = 0; i < batches; ++i) {
      const int batch = (i ^ 1) < batches ? i ^ 1 : i;
      Json positions = Json::array();
      for (int id = batch * kBatch; id < (batch + 1) * kBatch; ++id) positions.push_back(position(id));
      for (int again = 0; again <= (i % 4 == 3 ? 1 : 0); ++again)
        post(number + i + again, "positions", positions, uuid, user["secretkey"]);
    }
  }

  Json get(const std::string& path) {
    const auto answer =
        clients[static_cast<std::size_t>(number + 1) % clients.size()].Get("/live/units/" + uuid + "/" + path);
    return answer && answer->status == 200 ? Json::parse(answer->body) : Json();
  }

  void check(int positions, std::size_t repeats, bool ownContent) {
    int next = 0;
    for (bool more = true; more;) {
      const Json page = get("positions?limit=700&first=" + std::to_string(next));
      if (!page.is_object() || (more = page["more"], page["positions"].empty() && more)) return fail("no positions");
      for (const Json& row : page["positions"]) {
        if (row[0] != next || (ownContent && (row[2] != number || row[3] != next % 90)))
          return fail(uuid + " holds " + row.dump() + " where " + std::to_string(next) + " should be");
        ++next;
      }
    }
    const Json ledger = get("ledger");
    if (next != positions || ledger.value("count", -1) != positions || ledger.value("highest", -2) != positions - 1 ||
        !ledger["holes"].empty() || ledger["repeats"].size() != std::min<std::size_t>(repeats, 1000))
      fail(uuid + " holds " + std::to_string(next) + " of " + std::to_string(positions) + ": " + ledger.dump());
  }

  int number;
  std::string uuid;
  std::vector<httplib::Client> clients;
};

}  // namespace

int main(int count, char** arguments) {
  const int units = std::atoi(arguments[1]), batches = std::atoi(arguments[2]);
  std::vector<std::pair<std::string, int>> others;
  for (int i = 3; i < count; ++i) {
    const std::string text = arguments[i];
    if (text.starts_with("http"))
      origins.push_back(text);
    else
      others.emplace_back(text.substr(0, text.find('=')), std::atoi(text.c_str() + text.find('=') + 1));
  }
  std::vector<Unit> fleet;
  for (int i = 0; i < units; ++i) fleet.emplace_back(i);
  const auto all = [&](auto work) {
    std::vector<std::thread> threads;
    for (Unit& unit : fleet) threads.emplace_back([&unit, work] { work(unit); });
    for (std::thread& thread : threads) thread.join();
  };
  const auto begin = std::chrono::steady_clock::now();
  all([&](Unit& unit) { unit.send(batches); });
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  all([&](Unit& unit) { unit.check(batches * kBatch, static_cast<std::size_t>(batches / 4 * kBatch), true); });
  for (const auto& [uuid, positions] : others) {
    Unit unit(0);
    unit.uuid = uuid;
    unit.check(positions, 0, false);
  }
  if (units > 0)
    std::printf("%d units, %d positions: %.0f positions/s\n", units, units * batches * kBatch,
                units * batches * kBatch / seconds);
  return failures == 0 ? 0 : 1;
}
