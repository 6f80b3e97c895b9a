// Spans and counters for the kernel tracer. Off (one compare per call) until `enable` opens the
// kernel's trace marker; on a system without it, `enable` logs a warning and tracing stays off.
// Each call is one write to the kernel and takes no lock, so any thread may trace. Spans nest by
// the kernel's convention: every `begin` needs its `end` on all paths (use ScopedTrace).
#ifndef VELMORA_COMMON_TRACE_H
#define VELMORA_COMMON_TRACE_H

#include <cstdint>

namespace AR {
namespace Common {

class Trace {
public:
    // The kernel's marker file.
    static constexpr const char* kTraceMarkerPath = "/sys/kernel/debug/tracing/trace_marker";

    // Opens the marker; true when tracing is on afterwards.
    static bool enable();
    static void disable();
    static bool isEnabled();

    static void begin(const char* name);
    static void end();
    static void counter(const char* name, int32_t value);
    static void counter(const char* name, int64_t value);

    // Opens `path` instead of the kernel's marker (tests and hosts with a different mount).
    static bool enableAt(const char* path);
};

// begin on construction, end on destruction.
class ScopedTrace {
public:
    explicit ScopedTrace(const char* name) { Trace::begin(name); }
    ~ScopedTrace() { Trace::end(); }
    ScopedTrace(const ScopedTrace&) = delete;
    ScopedTrace& operator=(const ScopedTrace&) = delete;
};

// Turns tracing on when made; the process keeps one (see `processTrace`), so that the marker is
// opened once, on first use, and closed at exit.
class ATrace {
public:
    ATrace() { Trace::enable(); }
    ~ATrace() { Trace::disable(); }
    ATrace(const ATrace&) = delete;
    ATrace& operator=(const ATrace&) = delete;
};

// The process's ATrace, made on first call.
ATrace& processTrace();

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_TRACE_H
