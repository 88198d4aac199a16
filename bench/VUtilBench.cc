// The cost of building and reading parameters: what every remote call pays on both of its ends.
#include "rpc/values/VUtil.h"

#include <benchmark/benchmark.h>

#include <utility>

namespace {

constexpr int serviceCount = 3;
constexpr int pairCount = 20;

ScopedVariant MakeArrayOf(unsigned short elementVt, unsigned long count) {
    ScopedVariant array;
    VUtil::CreateArray(array, elementVt, count);
    return array;
}

// What a satellite registers with: name, host, port, protocol version, id, number of services, services.
ScopedVariant MakeRecord() {
    constexpr const char* name = "RecordingSchedule";
    constexpr const char* description = "Plans, moves and cancels recordings";
    ScopedVariant services = VUtil::MakeList(VUtil::MakeList(name, description), VUtil::MakeList(name, description),
                                             VUtil::MakeList(name, description));
    constexpr unsigned short port = 40123;
    return VUtil::MakeList("Recorder", "living-room.local", port, 1, 0, serviceCount, std::move(services));
}

void BuildRecord(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(MakeRecord());
}
BENCHMARK(BuildRecord);

void ReadRecord(benchmark::State& state) {
    const ScopedVariant record = MakeRecord();
    for (auto _ : state) {
        VUtil::CheckArrayType(record, VT_VARIANT, 7);
        benchmark::DoNotOptimize(VUtil::GetStringElement(record, 0));
        benchmark::DoNotOptimize(VUtil::GetStringElement(record, 1));
        benchmark::DoNotOptimize(VUtil::GetUnsignedShortElement(record, 2));
        benchmark::DoNotOptimize(VUtil::GetIntElement(record, 3));
        benchmark::DoNotOptimize(VUtil::GetIntElement(record, 4));
        ScopedVariant services;
        VUtil::GetElement(record, 6, services);
        for (int i = 0; i < VUtil::GetIntElement(record, 5); ++i) {
            ScopedVariant service;
            VUtil::GetElement(services, i, service);
            benchmark::DoNotOptimize(VUtil::GetStringElement(service, 0));
            benchmark::DoNotOptimize(VUtil::GetStringElement(service, 1));
        }
    }
}
BENCHMARK(ReadRecord);

void CopyRecord(benchmark::State& state) {
    const ScopedVariant record = MakeRecord();
    for (auto _ : state) {
        ScopedVariant copy;
        benchmark::DoNotOptimize(VariantCopy(&copy, &record));
    }
}
BENCHMARK(CopyRecord);

// The worst case: the key of the last pair, spelled in another case.
void FindLastPairNoCase(benchmark::State& state) {
    ScopedVariant list = MakeArrayOf(VT_VARIANT, pairCount);
    for (int i = 0; i < pairCount; ++i) {
        CStdStr key;
        key.Format("Setting-%02d", i);
        VUtil::PutPair(list, i, key, "value");
    }
    CStdStr key;
    key.Format("SETTING-%02d", pairCount - 1);
    CStdStr value;
    for (auto _ : state) benchmark::DoNotOptimize(VUtil::FindPairNoCase(list, key, value));
}
BENCHMARK(FindLastPairNoCase);

void RecordToXml(benchmark::State& state) {
    const ScopedVariant record = MakeRecord();
    for (auto _ : state) {
        CStdStr text;
        VUtil::VariantToXML(&record, text);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(RecordToXml);

}  // namespace
