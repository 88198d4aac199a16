// The cost of turning messages into values and back: the small calls of everyday, and large arrays.
#include "rpc/wire/Codec.h"
#include "rpc/wire/Framer.h"

#include "rpc/values/Variant.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

using namespace kel::wire;

ScopedVariant MakeArrayOf(VARTYPE elementVt, uint32_t count) {
    ScopedVariant array;
    const SAFEARRAYBOUND bound = {count, 0};
    array.parray = SafeArrayCreate(elementVt, 1, &bound);
    array.vt = static_cast<VARTYPE>(VT_ARRAY | elementVt);
    return array;
}

void Put(tagVARIANT& array, long index, const ScopedVariant& value) {
    SafeArrayPutElement(array.parray, &index, const_cast<ScopedVariant*>(&value));
}

ScopedVariant MakeTexts(uint32_t count) {
    ScopedVariant array = MakeArrayOf(VT_VARIANT, count);
    for (uint32_t i = 0; i < count; ++i) Put(array, i, MakeString("a text of thirty-two characters."));
    return array;
}

void EncodeLoop(benchmark::State& state, const tagVARIANT& value) {
    std::string bytes;
    for (auto _ : state) {
        bytes.clear();
        benchmark::DoNotOptimize(EncodeResponse(bytes, 1, 0, value));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void DecodeLoop(benchmark::State& state, const std::string& bytes) {
    Message message;
    for (auto _ : state) benchmark::DoNotOptimize(Decode(bytes.data(), bytes.size(), message));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

std::string Answer(const tagVARIANT& value) {
    std::string bytes;
    benchmark::DoNotOptimize(EncodeResponse(bytes, 1, 0, value));
    return bytes;
}

std::string LookUp() {
    std::string bytes;
    benchmark::DoNotOptimize(EncodeRequest(bytes, 1, "GetSatelliteId", "Player", MakeString("Recorder")));
    return bytes;
}

void FrameSmallRequest(benchmark::State& state) {
    const std::string bytes = LookUp();
    Framer framer;
    for (auto _ : state) {
        framer.Reset();
        benchmark::DoNotOptimize(framer.Scan(bytes.data(), bytes.size()));
    }
}
BENCHMARK(FrameSmallRequest);

void DecodeSmallRequest(benchmark::State& state) { DecodeLoop(state, LookUp()); }
BENCHMARK(DecodeSmallRequest);

void EncodeSmallAnswer(benchmark::State& state) { EncodeLoop(state, MakeInt(17)); }
BENCHMARK(EncodeSmallAnswer);

void DecodeTexts(benchmark::State& state) {
    DecodeLoop(state, Answer(MakeTexts(static_cast<uint32_t>(state.range(0)))));
}
BENCHMARK(DecodeTexts)->Range(16, 64 << 10);

void EncodeTexts(benchmark::State& state) { EncodeLoop(state, MakeTexts(static_cast<uint32_t>(state.range(0)))); }
BENCHMARK(EncodeTexts)->Range(16, 64 << 10);

void DecodeDoubles(benchmark::State& state) {
    DecodeLoop(state, Answer(MakeArrayOf(VT_R8, static_cast<uint32_t>(state.range(0)))));
}
BENCHMARK(DecodeDoubles)->Arg(1 << 20);

void EncodeDoubles(benchmark::State& state) {
    EncodeLoop(state, MakeArrayOf(VT_R8, static_cast<uint32_t>(state.range(0))));
}
BENCHMARK(EncodeDoubles)->Arg(1 << 20);

void DecodeBytes(benchmark::State& state) {
    DecodeLoop(state, Answer(MakeArrayOf(VT_UI1, static_cast<uint32_t>(state.range(0)))));
}
BENCHMARK(DecodeBytes)->Arg(8 << 20);

}  // namespace
