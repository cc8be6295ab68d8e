#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "platform/persistence/NSManagedObjectContext.h"
#include "support/StoreFile.h"
#include "support/TempDir.h"

namespace tarvo::platform {

using test::ask;
using test::bytesOf;

/// The tables and indexes with the statements that make them.
inline std::string schemaOf(const std::filesystem::path& file) {
  return ask(file,
             "SELECT group_concat(name || sql, char(10)) FROM (SELECT name, sql FROM sqlite_schema ORDER BY name)");
}

/// The model that the library carries.
inline std::shared_ptr<NSManagedObjectModel> shippedModel() {
  static const std::string text = bytesOf(std::filesystem::path(__FILE__).parent_path() / ".." / ".." / "src" /
                                          "store" / "Marrowgate-Tarvo-db.momd");
  return NSManagedObjectModel::load({"test", text});
}

/// A context over a store file, if none is named one of its own; opening it again is a new one.
struct TestStore {
  explicit TestStore(const std::filesystem::path& path = {}, WriteRight::Patience patience = {},
                     std::shared_ptr<NSManagedObjectModel> model = shippedModel())
      : file(path.empty() ? folder.path() / "a.sqlite" : path),
        coordinator(std::make_shared<NSPersistentStoreCoordinator>(std::move(model), patience)) {
    failure = coordinator->addPersistentStore(NSSQLiteStoreType, "ConfigurationForLocationsAndUsers", file);
    context = std::make_unique<NSManagedObjectContext>(coordinator);
  }

  int at(std::string_view attribute, std::string_view entity = "Locations") const {
    return coordinator->model().entity(entity)->attributeIndex(attribute);
  }

  /// A new position, not saved.
  std::shared_ptr<NSManagedObject> add(std::int64_t index, bool unsent = true, bool awaiting = false) {
    auto object = context->insertNewObject("Locations");
    object->setInteger(at("index"), index);
    object->setBoolean(at("unsent"), unsent);
    object->setBoolean(at("sentWithoutACK"), awaiting);
    return object;
  }

  /// New positions with the indexes from 0 on, saved.
  void fill(int count) {
    for (int i = 0; i < count; ++i) add(i);
    save();
  }

  /// The indexes of a result in its order, "!" for a failure.
  std::string indexes(const NSFetchRequest& request) {
    auto found = context->fetch(request);
    if (!found) return "!";
    std::string text;
    for (const auto& object : *found) text += std::to_string(object->integer(at("index")).value_or(-1)) + " ";
    return text;
  }

  /// By value: a loop over a part of the temporary result would outlive it.
  std::vector<std::shared_ptr<NSManagedObject>> fetch(const NSFetchRequest& request = {"Locations"}) {
    return std::move(context->fetch(request).value());
  }

  std::size_t count(const NSFetchRequest& request = {"Locations"}) { return context->count(request).value(); }

  void run(const std::function<void()>& block) { context->performAndWait(block); }

  /// Saves without an error.
  void save() {
    const auto error = context->save();
    EXPECT_FALSE(error) << error->description();
  }

  test::TempDir folder;
  std::filesystem::path file;
  std::shared_ptr<NSPersistentStoreCoordinator> coordinator;
  std::optional<Error> failure;
  std::unique_ptr<NSManagedObjectContext> context;
};

using Op = NSPredicate::Operator;

inline const NSFetchRequest kByIndex{"Locations", {}, {{"index", true}}};

inline NSFetchRequest unsentRequest(std::size_t limit = 1000) {
  return {"Locations", {{"unsent", Op::equal, true}, {"sentWithoutACK", Op::equal, false}}, {{"index", true}}, limit};
}

}  // namespace tarvo::platform
