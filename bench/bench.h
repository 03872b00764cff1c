#pragma once

// Registration entry points of the benchmark groups and the table of ratios
// that bench_main prints after the run: every figure against its anchor.

#include <string>
#include <vector>

struct Ratio {
  enum Kind {
    kTimeRatio,   // time(subject) / time(anchor), lower is better
    kRateRatio,   // rate(subject) / rate(anchor) = time(anchor) / time(subject)
    kRecvGrowth,  // time(subject) / (time(base) + time(anchor) - time(anchor_base))
    kLatency,     // the subject's p50/p99 counters against the anchor's
  };
  std::string label;
  Kind kind;
  std::string subject;
  std::string anchor;
  double target;  // bound the ratio should stay under (kRateRatio: reach); 0: none
  std::string base = {};
  std::string anchor_base = {};
};

void RegisterCodecBenchmarks(std::vector<Ratio>& ratios);
void RegisterIoBenchmarks(std::vector<Ratio>& ratios);
