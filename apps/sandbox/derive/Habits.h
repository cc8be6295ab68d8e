#pragma once

#include "sandbox/derive/Book.h"
#include "sandbox/derive/Records.h"

namespace tarvo::sandbox::derive {

/// Predicts the next trip of a host that stays at a known place; true when that is another prediction than before,
/// which has a number of its own in the book then. An older one stays while there is nothing to put in its place.
bool updatePrediction(Records& records, Book& book);

}  // namespace tarvo::sandbox::derive
