/// @file
/// What the shared library shows.
#pragma once

/// Marks what the shared library shows; everything else in it is hidden.
#define TARVO_API __attribute__((visibility("default")))
