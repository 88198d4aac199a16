// The cost of the registry's look-ups: one finds a satellite by its name, one finds any provider of a service, which
// must not cost more when all of 100,000 satellites provide it; and one finds another service each time. Memory only,
// no files.
#include "registry/Registration.h"

#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

CStdStr NameOf(int64_t number) { return "Satellite" + std::to_string(number); }

// A registry of `count` satellites with one service each, "Schedule" at every one.
std::unique_ptr<CRegistration> MakeRegistry(int64_t count) {
    setenv("YAR_ROOT", "/dev/null", 1);  // no folder can be made there
    auto registry = std::make_unique<CRegistration>([] { return uint32_t{0}; });
    for (int64_t i = 0; i < count; ++i) {
        int satId = 0;
        registry->AddSatellite(NameOf(i), "192.168.1.20", 50123, "studio", 1, &satId);
        registry->AddService(NameOf(i), "Schedule", "Recording schedule");
    }
    return registry;
}

void FindSatellite(benchmark::State& state) {
    const auto registry = MakeRegistry(state.range(0));
    const CStdStr name = NameOf(state.range(0) / 2);
    CStdStr ip;
    int satId = 0;
    unsigned short port = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(registry->FindSatellite(name, ip, &satId, &port, "192.168.1.21"));
    }
}
BENCHMARK(FindSatellite)->Arg(10)->Arg(100000);

void FindAnyProvider(benchmark::State& state) {
    const auto registry = MakeRegistry(state.range(0));
    const CStdStr service("Schedule");
    std::vector<KelServiceInfo> found;
    for (auto _ : state) {
        found.clear();
        registry->GetLastServiceInfo(service, found, "192.168.1.21");
        benchmark::DoNotOptimize(found.data());
    }
}
BENCHMARK(FindAnyProvider)->Arg(10)->Arg(100000);

// Each satellite has a service of its own, and each look-up is of another one: with many, from distant memory.
void FindEveryProvider(benchmark::State& state) {
    const auto registry = MakeRegistry(state.range(0));
    std::vector<CStdStr> services;
    for (int64_t i = 0; i < state.range(0); ++i) {
        services.push_back("Schedule of " + NameOf(i));
        registry->AddService(NameOf(i), services.back(), "Recording schedule");
    }
    std::shuffle(services.begin(), services.end(), std::mt19937());
    const std::vector<CStdStr> asked(services);  // whose texts lie in this order
    std::vector<KelServiceInfo> found;
    size_t next = 0;
    for (auto _ : state) {
        found.clear();
        registry->GetLastServiceInfo(asked[next], found, "192.168.1.21");
        benchmark::DoNotOptimize(found.data());
        next = next + 1 < asked.size() ? next + 1 : 0;
    }
}
BENCHMARK(FindEveryProvider)->Arg(10)->Arg(100000);

}  // namespace
