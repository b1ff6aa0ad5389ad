// Linnet and its baselines timed in alternating small batches inside one
// benchmark, so that every side sees the same machine; the figures are the
// ratios of the paired sums, on the wall clock and on the process CPU clock.
#ifndef LINNET_BENCH_PAIRED_H
#define LINNET_BENCH_PAIRED_H

#include <benchmark/benchmark.h>
#include <time.h>

#include <functional>
#include <string>
#include <vector>

namespace bench {

// Nanoseconds of `clock` (CLOCK_MONOTONIC, CLOCK_PROCESS_CPUTIME_ID).
double NowNs(clockid_t clock);

// What a batch cost: wall-clock and process CPU nanoseconds.
struct Cost {
    double wall = 0, cpu = 0;
};

// Runs `ops` operations of one side and adds what they cost to *cost;
// false when one failed.
using Batch = std::function<bool(long ops, Cost* cost)>;

// A batch run in this process: `op` called once per operation, timed
// around the whole batch on the wall clock and this process's CPU clock
// (every thread of the process, so far ends served by threads count).
Batch Timed(std::function<bool()> op);
// The same for a batch that is one call: `batch(ops)` runs all ops.
Batch TimedBatch(std::function<bool(long ops)> batch);

struct Side {
    std::string name;  // the counter suffix: "ns:<name>", "cpu:<name>"
    long ops;          // operations per batch
    Batch run;
};

// Per benchmark iteration every side runs one batch, in turn (the order
// reversed at every other iteration). Counters per side: "ns:<name>" and
// "cpu:<name>", wall-clock and CPU nanoseconds per operation over the sums
// of all its batches; "per_op", the units one operation moves.
void Paired(benchmark::State& state, const std::vector<Side>& sides, double per_op = 1.0);

// A row of the ratio table: side `linnet` against side `baseline` of the
// paired benchmark `bm` (its name up to the first '/'); `unit` per second.
void Figure(const std::string& figure, const std::string& bm, const std::string& linnet, const std::string& baseline,
            const std::string& unit);
// A row from counters "bytes:<name>" (lower is better): the ratio printed
// is baseline / linnet, so above 1.0 linnet needs less.
void MemoryFigure(const std::string& figure, const std::string& bm, const std::string& linnet,
                  const std::string& baseline, const std::string& unit);

}  // namespace bench

#endif
