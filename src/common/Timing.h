// A stopwatch that adds up sections: beginSection ... endSection, any number of times, and the
// total in seconds, milliseconds or microseconds. Belongs to one thread.
#ifndef VELMORA_COMMON_TIMING_H
#define VELMORA_COMMON_TIMING_H

#include <cstdint>

#include "common/Platform.h"

namespace AR {
namespace Common {

class Timing {
public:
    Timing();
    ~Timing();
    Timing(const Timing&) = delete;
    Timing& operator=(const Timing&) = delete;

    // Zeroes the total.
    void reset();
    // Starts a section; with `reset` the total is zeroed first.
    void beginSection(bool reset);
    // Ends the running section and adds it to the total.
    void endSection();
    // With `running`, the time elapsed in the running section; else the stored total.
    float getDuration(bool running) const;
    float getDurationMilliseconds(bool running) const;
    int64_t getDurationMicroSeconds(bool running) const;

private:
    ArTiming* mTiming;
    int64_t mTotalMicroseconds = 0;
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_TIMING_H
