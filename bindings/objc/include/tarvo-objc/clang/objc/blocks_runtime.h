/** @file
 * GNUstep 1.28 includes a header of this name where blocks are compiled, and Debian has none: for hosts of clang, with
 * libblocksruntime-dev. See docs/objc.md. */
#ifndef TARVO_OBJC_CLANG_BLOCKS_RUNTIME_H
#define TARVO_OBJC_CLANG_BLOCKS_RUNTIME_H

#include <Block.h>

#endif
