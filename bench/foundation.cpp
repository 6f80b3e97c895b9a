// The costs the frame path relies on: a dropped log call and a trace call with tracing off must
// be near free, and reusing an image buffer must be cheaper than allocating a new one.
#include <benchmark/benchmark.h>

#include "common/Logger.h"
#include "common/Trace.h"
#include "cv/Image.h"

namespace {

void BM_DroppedLogCall(benchmark::State& state) {
    AR::Common::Logger::getInstance().setLevel(AR::Common::Logger::LEVEL_DEBUG);
    int value = 0;
    for (auto _ : state) {
        AR_LOG_VERBOSE("value %d", ++value);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_DroppedLogCall);

void BM_TraceSpanWhileOff(benchmark::State& state) {
    AR::Common::Trace::disable();
    for (auto _ : state) {
        AR::Common::ScopedTrace span("Integration");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_TraceSpanWhileOff);

// Alternating 640x480 and 480x640 depth images: the reshape search keeps the one buffer.
void BM_ImageReuseAcrossShapes(benchmark::State& state) {
    AR::CV::Image<unsigned short> image;
    bool wide = true;
    for (auto _ : state) {
        image.allocPixels(wide ? AR::CV::Size2i(640, 480) : AR::CV::Size2i(480, 640));
        benchmark::DoNotOptimize(image.pixels());
        wide = !wide;
    }
}
BENCHMARK(BM_ImageReuseAcrossShapes);

void BM_ImageFreshAllocation(benchmark::State& state) {
    AR::CV::Image<unsigned short> image;
    for (auto _ : state) {
        image.allocPixels(AR::CV::Size2i(640, 480), AR::Common::kDefaultAlignment, true);
        benchmark::DoNotOptimize(image.pixels());
    }
}
BENCHMARK(BM_ImageFreshAllocation);

}  // namespace
