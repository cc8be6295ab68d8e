// Times the works of a home; prints a line for each repetition, and for a rate another with the CPU time that the whole
// process used for one item, key ending in ".cpu". usage: bench_figures HOME SUFFIX [Google Benchmark's flags]
// SUFFIX is put behind the names of what is printed.
#include <benchmark/benchmark.h>

#include <string>

#include "support/Process.h"
#include "works/Works.h"

namespace {

using tarvo::bench::Work;

class Lines final : public benchmark::BenchmarkReporter {
 public:
  explicit Lines(std::string suffix) : suffix_(std::move(suffix)) {}

  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const std::string key = run.run_name.function_name + suffix_;
      const auto rate = run.counters.find("items_per_second");
      if (rate != run.counters.end()) tarvo::bench::report(key, rate->second.value);
      tarvo::bench::report(rate != run.counters.end() ? key + ".cpu" : key, run.GetAdjustedCPUTime());
    }
  }

 private:
  const std::string suffix_;
};

void time(benchmark::State& state, const Work& work) {
  // All iterations at once: a work that spans threads is timed until it has come to rest.
  while (state.KeepRunningBatch(state.max_iterations)) work.run(state.max_iterations);
  if (work.timing == Work::Timing::rate) state.SetItemsProcessed(state.iterations());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) tarvo::bench::fail("usage: bench_figures HOME SUFFIX [FLAG...]");
  const std::string suffix = argv[2];
  for (const Work& work : tarvo::bench::works(argv[1])) {
    auto* registered =
        benchmark::RegisterBenchmark(work.name.c_str(), [&work](benchmark::State& state) { time(state, work); });
    registered->Iterations(work.atATime)->Unit(benchmark::kMicrosecond);
    if (work.timing == Work::Timing::rate) registered->UseRealTime()->MeasureProcessCPUTime();
  }
  argv[2] = argv[0];
  int flags = argc - 2;
  benchmark::Initialize(&flags, argv + 2);
  Lines lines(suffix);
  if (benchmark::RunSpecifiedBenchmarks(&lines) == 0) tarvo::bench::fail("no figure of that name");
  tarvo::bench::checkWorks();
  // The SDK's threads rest; nothing is worth an orderly end.
  std::_Exit(0);
}
