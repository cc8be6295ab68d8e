#include "store/ObjectModel.h"

#include <span>

#include "marrowgateTarvoDb.h"
#include "platform/foundation/Bundle.h"
#include "platform/foundation/Text.h"
#include "settings/Names.h"
#include "store/Attributes.h"
#include "store/Locations.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"
#include "store/Users.h"

namespace tarvo {
namespace {

/// The classes address attributes by position: a model in another order would silently mix them up.
template <class Class>
void setEntityClass(platform::NSManagedObjectModel& model, std::span<const attribute::Declaration> declared) {
  const platform::NSEntityDescription* entity = model.entity(Class::kEntity);
  bool agrees = entity != nullptr && entity->attributes.size() == declared.size();
  for (std::size_t i = 0; agrees && i < declared.size(); ++i)
    agrees = entity->attributes[i].name == declared[i].name && entity->attributes[i].type == declared[i].type;
  if (!agrees)
    platform::fatalError(platform::concat("the object model and the class ", Class::kEntity, " do not agree"));
  model.setClass(Class::kEntity,
                 [](const platform::NSEntityDescription& description) -> std::shared_ptr<platform::NSManagedObject> {
                   return std::make_shared<Class>(description);
                 });
}

}  // namespace

void registerModelResources() {
  platform::Bundle::add(names::kFrameworkBundle, {{"Marrowgate-Tarvo-db", "momd", resources::marrowgateTarvoDb}});
}

void setEntityClasses(platform::NSManagedObjectModel& model) {
  setEntityClass<Locations>(model, attribute::locations::kAll);
  setEntityClass<PastTrips>(model, attribute::past_trips::kAll);
  setEntityClass<PointOfInterest>(model, attribute::points_of_interest::kAll);
  setEntityClass<Users>(model, attribute::users::kAll);
}

}  // namespace tarvo
