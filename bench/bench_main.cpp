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

// Keeps each benchmark's rate counter (the median when repetitions are
// asked for) while the console reporter prints as usual.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.error_occurred) continue;
            const auto it = r.counters.find("rate");
            if (it == r.counters.end()) continue;
            const std::string name = r.run_name.str();
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median")
                medians[name] = it->second.value;
            else if (r.run_type == Run::RT_Iteration)
                rates[name] = it->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double Rate(const std::string& name) const {
        auto m = medians.find(name);
        if (m != medians.end()) return m->second;
        auto r = rates.find(name);
        return r != rates.end() ? r->second : 0.0;
    }
    std::map<std::string, double> rates, medians;
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

    std::printf("\n%-66s %12s %12s %6s\n", "figure (unit)", "linnet", "baseline", "ratio");
    for (const Row& row : Rows()) {
        const double a = reporter.Rate(row.linnet), b = reporter.Rate(row.baseline);
        if (a == 0 || b == 0) continue;
        const std::string label = row.figure + " (" + row.unit + ")";
        std::printf("%-66s %12.1f %12.1f %6.2f\n", label.c_str(), a, b, a / b);
    }
    return 0;
}
