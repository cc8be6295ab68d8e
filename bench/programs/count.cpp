// Runs one work a number of times, for an instruction count. usage: bench_count HOME WORK ITEMS
#include <cstdlib>
#include <string_view>

#include "support/Process.h"
#include "works/Works.h"

int main(int argc, char** argv) {
  if (argc != 4) tarvo::bench::fail("usage: bench_count HOME WORK ITEMS");
  for (const auto& work : tarvo::bench::works(argv[1])) {
    if (work.name != argv[2]) continue;
    work.run(std::strtoll(argv[3], nullptr, 10));
    tarvo::bench::checkWorks();
    return 0;
  }
  tarvo::bench::fail("no work of that name");
}
