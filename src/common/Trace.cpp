#include "common/Trace.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "common/Logger.h"

namespace AR {
namespace Common {

namespace {

constexpr int kClosed = -1;
// The one marker descriptor of the process, kClosed when tracing is off.
std::atomic<int> gTraceFd{kClosed};
// Stack room for one marker record.
constexpr size_t kRecordSize = 1024;

void writeRecord(int fd, const char* record, int length) {
    if (length <= 0) {
        return;
    }
    const size_t size =
        static_cast<size_t>(length) < kRecordSize ? static_cast<size_t>(length) : kRecordSize - 1;
    // A lost trace record is not worth a report: the result is ignored on purpose.
    const ssize_t written = write(fd, record, size);
    static_cast<void>(written);
}

}  // namespace

bool Trace::enable() {
    return enableAt(kTraceMarkerPath);
}

bool Trace::enableAt(const char* path) {
    if (gTraceFd.load() != kClosed) {
        return true;
    }
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        AR_LOG_WARNING("error opening trace file: %s (%d)", std::strerror(error), error);
        return false;
    }
    int expected = kClosed;
    if (!gTraceFd.compare_exchange_strong(expected, fd)) {
        // Another thread opened it first.
        close(fd);
    }
    return true;
}

void Trace::disable() {
    const int fd = gTraceFd.exchange(kClosed);
    if (fd != kClosed && close(fd) != 0) {
        const int error = errno;
        AR_LOG_WARNING("error closing trace file: %s (%d)", std::strerror(error), error);
    }
}

bool Trace::isEnabled() {
    return gTraceFd.load(std::memory_order_relaxed) != kClosed;
}

void Trace::begin(const char* name) {
    const int fd = gTraceFd.load(std::memory_order_relaxed);
    if (fd == kClosed) {
        return;
    }
    char record[kRecordSize];
    writeRecord(fd, record, std::snprintf(record, sizeof(record), "B|%d|%s", getpid(), name));
}

void Trace::end() {
    const int fd = gTraceFd.load(std::memory_order_relaxed);
    if (fd == kClosed) {
        return;
    }
    writeRecord(fd, "E", 1);
}

void Trace::counter(const char* name, int32_t value) {
    const int fd = gTraceFd.load(std::memory_order_relaxed);
    if (fd == kClosed) {
        return;
    }
    char record[kRecordSize];
    writeRecord(fd, record,
                std::snprintf(record, sizeof(record), "C|%d|%s|%d", getpid(), name, value));
}

void Trace::counter(const char* name, int64_t value) {
    const int fd = gTraceFd.load(std::memory_order_relaxed);
    if (fd == kClosed) {
        return;
    }
    char record[kRecordSize];
    writeRecord(fd, record,
                std::snprintf(record, sizeof(record), "C|%d|%s|%lld", getpid(), name,
                              static_cast<long long>(value)));
}

ATrace& processTrace() {
    static ATrace trace;
    return trace;
}

}  // namespace Common
}  // namespace AR
