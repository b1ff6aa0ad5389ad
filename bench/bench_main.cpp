// linnet-bench: every figure measured side by side with its baselines in one
// run, then printed as one table of ratios: throughput on the wall clock,
// and the process CPU time per operation, linnet / baseline (higher is
// better for linnet).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "paired.h"

namespace {

struct Row {
    std::string figure, bm, linnet, baseline, unit;
    bool memory;
};

std::vector<Row>& Rows() {
    static std::vector<Row> rows;
    return rows;
}

using Counters = std::map<std::string, double>;

// Keeps each benchmark's counters (the medians when repetitions are asked
// for) while the console reporter prints as usual.
class CounterReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            const std::string name = r.run_name.str();
            ran_.push_back(name);
            if (r.error_occurred) continue;
            const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if (!median && r.run_type != Run::RT_Iteration) continue;
            if (!median && medians_.count(name)) continue;
            Counters& c = median ? medians_[name] : runs_[name];
            for (const auto& kv : r.counters) c[kv.first] = kv.second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // The counters of the benchmark whose name up to the first '/' is bm.
    const Counters* Find(const std::string& bm) const {
        for (const auto* m : {&medians_, &runs_})
            for (const auto& kv : *m)
                if (Is(kv.first, bm)) return &kv.second;
        return nullptr;
    }
    // Whether bm ran at all (it may have failed).
    bool Ran(const std::string& bm) const {
        for (const std::string& name : ran_)
            if (Is(name, bm)) return true;
        return false;
    }

private:
    static bool Is(const std::string& name, const std::string& bm) { return name.compare(0, name.find('/'), bm) == 0; }
    std::map<std::string, Counters> medians_, runs_;
    std::vector<std::string> ran_;
};

// Two decimals; three significant digits below 0.1 (the Nagle row).
std::string Ratio(double r) {
    char buf[32];
    std::snprintf(buf, sizeof buf, r >= 0.1 ? "%.2f" : "%.2g", r);
    return buf;
}

double Get(const Counters& c, const std::string& key) {
    const auto it = c.find(key);
    return it == c.end() ? 0.0 : it->second;
}

void PrintTable(const CounterReporter& reporter) {
    std::printf("\n%-78s %12s %12s %6s %6s\n", "figure (unit)", "linnet", "baseline", "wall", "cpu");
    for (const Row& row : Rows()) {
        if (!reporter.Ran(row.bm)) continue;  // filtered out
        const std::string label = row.figure + " (" + row.unit + ")";
        const Counters* c = reporter.Find(row.bm);
        if (row.memory) {
            const double a = c ? Get(*c, "bytes:" + row.linnet) : 0, b = c ? Get(*c, "bytes:" + row.baseline) : 0;
            if (a > 0 && b > 0)
                std::printf("%-78s %12.0f %12.0f %6s %6s\n", label.c_str(), a, b, Ratio(b / a).c_str(), "-");
            else
                std::printf("%-78s %12s\n", label.c_str(), "not measured");
            continue;
        }
        const double a = c ? Get(*c, "ns:" + row.linnet) : 0, b = c ? Get(*c, "ns:" + row.baseline) : 0;
        const double ca = c ? Get(*c, "cpu:" + row.linnet) : 0, cb = c ? Get(*c, "cpu:" + row.baseline) : 0;
        if (a <= 0 || b <= 0) {
            std::printf("%-78s %12s\n", label.c_str(), "not measured");
            continue;
        }
        const double per_op = Get(*c, "per_op");
        std::printf("%-78s %12.1f %12.1f %6s ", label.c_str(), per_op * 1e9 / a, per_op * 1e9 / b,
                    Ratio(b / a).c_str());
        if (ca > 0 && cb > 0)
            std::printf("%6s\n", Ratio(cb / ca).c_str());
        else
            std::printf("%6s\n", "-");
    }
}

}  // namespace

namespace bench {
void Figure(const std::string& figure, const std::string& bm, const std::string& linnet, const std::string& baseline,
            const std::string& unit) {
    Rows().push_back(Row{figure, bm, linnet, baseline, unit, false});
}
void MemoryFigure(const std::string& figure, const std::string& bm, const std::string& linnet,
                  const std::string& baseline, const std::string& unit) {
    Rows().push_back(Row{figure, bm, linnet, baseline, unit, true});
}
}  // namespace bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    CounterReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    PrintTable(reporter);
    return 0;
}
