#include "paired.h"

namespace bench {

double NowNs(clockid_t clock) {
    timespec ts{};
    ::clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

Batch Timed(std::function<bool()> op) {
    return TimedBatch([op](long ops) {
        for (long i = 0; i < ops; ++i)
            if (!op()) return false;
        return true;
    });
}

Batch TimedBatch(std::function<bool(long ops)> batch) {
    return [batch](long ops, Cost* cost) {
        const double w0 = NowNs(CLOCK_MONOTONIC), c0 = NowNs(CLOCK_PROCESS_CPUTIME_ID);
        if (!batch(ops)) return false;
        cost->wall += NowNs(CLOCK_MONOTONIC) - w0;
        cost->cpu += NowNs(CLOCK_PROCESS_CPUTIME_ID) - c0;
        return true;
    };
}

void Paired(benchmark::State& state, const std::vector<Side>& sides, double per_op) {
    std::vector<Cost> cost(sides.size());
    std::vector<long> done(sides.size(), 0);
    bool reverse = false;
    for (auto _ : state) {
        for (std::size_t k = 0; k < sides.size(); ++k) {
            const std::size_t i = reverse ? sides.size() - 1 - k : k;
            if (!sides[i].run(sides[i].ops, &cost[i])) {
                state.SkipWithError((sides[i].name + " failed").c_str());
                return;
            }
            done[i] += sides[i].ops;
        }
        reverse = !reverse;
    }
    for (std::size_t i = 0; i < sides.size(); ++i) {
        if (done[i] == 0) continue;
        state.counters["ns:" + sides[i].name] = cost[i].wall / static_cast<double>(done[i]);
        state.counters["cpu:" + sides[i].name] = cost[i].cpu / static_cast<double>(done[i]);
    }
    state.counters["per_op"] = per_op;
}

}  // namespace bench
