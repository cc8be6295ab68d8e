#include <list>

#include "persistence/TestStore.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

std::string stateOf(const fs::path& file) {
  return schemaOf(file) + ask(file,
                              "SELECT group_concat(name || '=' || value) FROM (SELECT * FROM _metadata WHERE "
                              "name <> 'uuid' ORDER BY name)");
}

constexpr const char* kAttributes =
    R"({"name":"index","type":"integer"},{"name":"unsent","type":"boolean"},{"name":"sentWithoutACK","type":"boolean"})";
constexpr const char* kNote = R"(,{"name":"note","type":"string"})";
constexpr const char* kPlaces = R"(,{"name":"Places","attributes":[{"name":"id","type":"integer"}]})";

/// A model of positions with three attributes and more.
std::shared_ptr<NSManagedObjectModel> model(int version, const std::string& attributes, const char* index,
                                            const std::string& entities = "") {
  static auto& texts = *new std::list<std::string>;  // the resource is named, not copied
  const char* members = entities.empty() ? R"("Locations")" : R"("Locations","Places")";
  texts.push_back(concat(R"({"version":)", version, R"(,"entities":[{"name":"Locations","attributes":[)", attributes,
                         R"(],"indexes":[{"name":"queue","attributes":[")", index, R"("]}]})", entities,
                         R"(],"configurations":{"ConfigurationForLocationsAndUsers":[)", members, "]}}"));
  return NSManagedObjectModel::load({"test", texts.back()});
}

std::shared_ptr<NSManagedObjectModel> older() { return model(1, kAttributes, "index"); }
/// One more of all, and an index that has changed.
std::shared_ptr<NSManagedObjectModel> newer() { return model(2, std::string(kAttributes) + kNote, "unsent", kPlaces); }

TEST(Migration, AddsWhatTheModelHasMoreOnceSomebodyWritesAndShutsTheOlderLibraryOut) {
  TestStore made({}, {}, newer()), old({}, {}, older());
  {
    TestStore filled(old.file, {}, older());
    filled.run([&] { filled.fill(1); });
  }
  TestStore store(old.file, {}, newer());
  ASSERT_NE(stateOf(old.file), stateOf(made.file));
  store.run([&] {
    EXPECT_EQ(store.count({"Places"}), 0U);
    EXPECT_EQ(store.fetch().front()->string(store.at("note")), std::nullopt);
    store.add(3)->setString(store.at("note"), "new");
    EXPECT_EQ(store.indexes({"Locations", {{"note", Op::equal, "new"}}}), "3 ");
    store.save();
    EXPECT_EQ(store.indexes(kByIndex), "0 3 ");
  });
  EXPECT_EQ(stateOf(old.file), stateOf(made.file));
  store.context.reset();
  store.coordinator.reset();
  old.run([&] {
    const auto refusal = old.context->claim();
    ASSERT_TRUE(refusal);
    EXPECT_NE(refusal->localizedDescription.find("newer version"), std::string::npos);
  });
}

TEST(Migration, RefusesWhatWouldLoseSomethingAndLeavesItAlone) {
  const std::string retyped = R"({"name":"index","type":"double"},{"name":"unsent","type":"boolean"})";
  const std::tuple<const char*, std::shared_ptr<NSManagedObjectModel>, const char*> cases[] = {
      {"an older library", model(1, kAttributes, "index"), "newer version of the library (model 2, known here 1)"},
      {"other model of that version", model(2, kAttributes, "index"), "was made with another model"},
      {"an attribute less", model(3, kAttributes, "index", kPlaces), "Locations.note is not as the model's"},
      {"another type", model(3, retyped + kNote, "index", kPlaces), "Locations.index is not as the model's"},
  };
  for (const auto& [name, other, why] : cases) {
    SCOPED_TRACE(name);
    test::TempDir dir;
    const auto file = dir.path() / "a.sqlite";
    { TestStore made(file, {}, newer()); }
    const std::string before = bytesOf(file);
    TestStore store(file, {}, other);
    ASSERT_TRUE(store.failure);
    EXPECT_NE(store.failure->localizedDescription.find(why), std::string::npos) << store.failure->description();
    EXPECT_FALSE(store.coordinator->hasStore());
    EXPECT_TRUE(bytesOf(file) == before);
  }
}

}  // namespace
}  // namespace tarvo::platform
