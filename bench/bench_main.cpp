// Runs every benchmark, then prints each figure as a ratio against its anchor
// from the same run, next to the target it is held to.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench.h"

namespace {

struct Figure {
  double ns = 0;  // real time per iteration
  std::map<std::string, double> counters;
};

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // Colour only on a terminal, so that saved output stays plain text.
  explicit RatioReporter(const std::vector<Ratio>& ratios)
      : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Color : OO_None), ratios_(ratios) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      // Keyed by the registered name, without suffixes such as min_time.
      Figure& f = figures_[run.run_name.function_name];
      f.ns = run.GetAdjustedRealTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
      for (const auto& c : run.counters) f.counters[c.first] = c.second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-44s %12s %12s %9s %9s  %s\n", "figure", "subject", "anchor", "ratio", "target",
                "met");
    for (const Ratio& r : ratios_) Print(r);
  }

 private:
  bool Have(const std::string& name) const { return figures_.count(name) != 0; }

  void Print(const Ratio& r) {
    if (!Have(r.subject) || !Have(r.anchor)) return;
    const Figure& s = figures_[r.subject];
    const Figure& a = figures_[r.anchor];
    if (r.kind == Ratio::kLatency) {
      for (const char* q : {"p50_us", "p99_us", "max_us"}) {
        const double sv = s.counters.count(q) ? s.counters.at(q) : 0;
        const double av = a.counters.count(q) ? a.counters.at(q) : 0;
        const bool bounded = std::string(q) == "p99_us";
        std::printf("%-44s %10.1fus %10.1fus %9.2f %9s  %s\n", (r.label + " " + q).c_str(), sv, av,
                    av > 0 ? sv / av : 0, bounded ? "<1000us" : "-",
                    bounded ? (sv < r.target ? "yes" : "NO") : "-");
      }
      return;
    }
    double anchor_ns = a.ns;
    if (r.kind == Ratio::kRecvGrowth) {
      if (!Have(r.base) || !Have(r.anchor_base)) return;
      anchor_ns = figures_[r.base].ns + a.ns - figures_[r.anchor_base].ns;
    }
    const double ratio = r.kind == Ratio::kRateRatio ? anchor_ns / s.ns : s.ns / anchor_ns;
    const bool met =
        r.target == 0 || (r.kind == Ratio::kRateRatio ? ratio >= r.target : ratio <= r.target);
    char target[32] = "-";
    if (r.target != 0) {
      std::snprintf(target, sizeof target, "%s%.2f",
                    r.kind == Ratio::kRateRatio ? ">=" : "<=", r.target);
    }
    std::printf("%-44s %10.0fns %10.0fns %9.2f %9s  %s\n", r.label.c_str(), s.ns, anchor_ns, ratio,
                target,
                r.target == 0 ? "-"
                : met         ? "yes"
                              : "NO");
  }

  std::vector<Ratio> ratios_;
  std::map<std::string, Figure> figures_;
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<Ratio> ratios;
  RegisterCodecBenchmarks(ratios);
  RegisterIoBenchmarks(ratios);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter(ratios);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
