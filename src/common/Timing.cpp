#include "common/Timing.h"

#include "common/Assert.h"

namespace AR {
namespace Common {

namespace {
constexpr float kMicrosPerSecond = 1e6f;
constexpr float kMicrosPerMilli = 1e3f;
}  // namespace

Timing::Timing() : mTiming(arTimingCreate()) {
    AR_ASSERT(mTiming != nullptr);
}

Timing::~Timing() {
    arTimingDestroy(mTiming);
}

void Timing::reset() {
    mTotalMicroseconds = 0;
}

void Timing::beginSection(bool reset) {
    if (reset) {
        mTotalMicroseconds = 0;
    }
    arTimingBeginSection(mTiming);
}

void Timing::endSection() {
    int64_t section = 0;
    if (arTimingEndSection(mTiming, &section) == 0) {
        mTotalMicroseconds += section;
    }
}

int64_t Timing::getDurationMicroSeconds(bool running) const {
    if (!running) {
        return mTotalMicroseconds;
    }
    int64_t elapsed = 0;
    arTimingGetElapsedTime(mTiming, &elapsed);
    return elapsed;
}

float Timing::getDuration(bool running) const {
    return static_cast<float>(getDurationMicroSeconds(running)) / kMicrosPerSecond;
}

float Timing::getDurationMilliseconds(bool running) const {
    return static_cast<float>(getDurationMicroSeconds(running)) / kMicrosPerMilli;
}

}  // namespace Common
}  // namespace AR
