#pragma once

#include "platform/persistence/NSManagedObjectModel.h"

namespace tarvo {

/// Makes the library's bundle with its object model known to the platform; a second call changes nothing.
void registerModelResources();

/// Gives the model's four entities their classes.
void setEntityClasses(platform::NSManagedObjectModel& model);

}  // namespace tarvo
