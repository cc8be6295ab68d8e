// Bytes that a stored position takes in memory with its texts, averaged over 1000 fetched ones, as the allocator counts
// them. usage: bench_record HOME
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "store/Locations.h"
#include "support/Process.h"
#include "support/Sdk.h"

namespace {

// All forms are replaced: those of the library need not call each other through these.
std::atomic<std::int64_t> live{0};

/// What malloc takes for a block: its usable size and the word before it.
std::int64_t cost(void* block) { return static_cast<std::int64_t>(malloc_usable_size(block) + sizeof(std::size_t)); }

}  // namespace

void* operator new(std::size_t size) {
  void* block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  live.fetch_add(cost(block));
  return block;
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* block) noexcept {
  if (block != nullptr) live.fetch_sub(cost(block));
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { operator delete(block); }

int main(int argc, char** argv) {
  using namespace tarvo;
  if (argc != 2) bench::fail("usage: bench_record HOME");
  bench::useHome(argv[1]);
  auto& context = bench::parts().store.managedObjectContext();
  bench::waitUntilIdle();
  std::int64_t bytes = 0;
  context.performAndWait([&] {
    // Once before, so that only what belongs to the records counts.
    Locations::getUnsentLocations(context).clear();
    const std::int64_t before = live.load();
    const Locations::List rows = Locations::getUnsentLocations(context);
    bytes = live.load() - before;
    if (rows.size() != 1000) bench::fail("there are no 1000 positions");
  });
  bench::report("record", static_cast<double>(bytes) / 1000);
  std::_Exit(0);
}
