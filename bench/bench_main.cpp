// linnet-bench: every figure measured side by side with its baselines in one
// run, then printed as one table of ratios.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench_hosts.h"

namespace {

struct Row {
    std::string figure, linnet, baseline, unit;
};

std::vector<Row>& Rows() {
    static std::vector<Row> rows;
    return rows;
}

// Keeps each run's rate counter while the console reporter prints as usual.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
            const auto it = r.counters.find("rate");
            if (it != r.counters.end()) rates[r.benchmark_name()] = it->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> rates;
};

}  // namespace

namespace bench {
void Figure(const std::string& figure, const std::string& linnet, const std::string& baseline,
            const std::string& unit) {
    Rows().push_back(Row{figure, linnet, baseline, unit});
}
}  // namespace bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("\n%-58s %14s %14s %7s\n", "figure (unit)", "linnet", "baseline", "ratio");
    for (const Row& row : Rows()) {
        const auto a = reporter.rates.find(row.linnet);
        const auto b = reporter.rates.find(row.baseline);
        if (a == reporter.rates.end() || b == reporter.rates.end() || b->second == 0) continue;
        const std::string label = row.figure + " (" + row.unit + ")";
        std::printf("%-58s %14.1f %14.1f %7.2f\n", label.c_str(), a->second, b->second,
                    a->second / b->second);
    }
    return 0;
}
