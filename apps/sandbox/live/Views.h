#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/Service.h"

namespace tarvo::sandbox::live {

/// What people ask below /live/, and what hosts report below /channel/: docs/sandbox.md. Streams are not answered here.
///
/// Threads: any. Errors: those of the store.
class Views {
 public:
  /// `tiles` is the URL template of map tiles; empty without.
  Views(Service& service, std::string tiles) : service_(service), tiles_(std::move(tiles)) {}

  Reply answer(const Call& call);
  /// The unit of "/channel/UNIT..." where there is one of that name; empty otherwise.
  std::string unitOfChannel(std::string_view path);

 private:
  Reply state();
  Reply faults(const Call& call, const std::string& id);
  Reply requests(const Call& call);
  Reply ofUnit(const Call& call, const std::string& unit, const std::vector<std::string>& parts);
  Reply push(const Call& call, const Unit& unit);
  Reply positions(const Call& call, const std::string& unit);
  Reply ledger(const std::string& unit);
  Reply report(const Call& call, const std::string& unit, std::string_view what);

  Service& service_;
  const std::string tiles_;
};

}  // namespace tarvo::sandbox::live
