#include "common/Platform.h"

#include <errno.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#ifdef __ANDROID__
#include <android/log.h>
#endif

namespace {

// ---- Error code --------------------------------------------------------------------------------

std::mutex gErrorMutex;
int gError = AR_ERROR_NONE;

void storeError(int code) {
    std::lock_guard<std::mutex> lock(gErrorMutex);
    gError = code;
}

// ---- System log --------------------------------------------------------------------------------

#ifdef __ANDROID__
// Android priority of each log level 0..5 (0 is never written).
constexpr int kAndroidPriority[] = {ANDROID_LOG_SILENT, ANDROID_LOG_ERROR, ANDROID_LOG_WARN,
                                    ANDROID_LOG_DEBUG,  ANDROID_LOG_INFO,  ANDROID_LOG_VERBOSE};
#endif
// The tag under which the whole library writes to the system log.
constexpr const char* kSystemLogTag = "AR";

void systemLogWrite(int level, const char* tag, const char* text) {
#ifdef __ANDROID__
    __android_log_write(kAndroidPriority[level], tag, text);
#else
    // Standard error takes the text alone: the level and the tag are Android's metadata, not text.
    static_cast<void>(level);
    static_cast<void>(tag);
    std::fputs(text, stderr);
#endif
}

void systemLogVPrint(int level, const char* format, va_list args) {
#ifdef __ANDROID__
    __android_log_vprint(kAndroidPriority[level], kSystemLogTag, format, args);
#else
    static_cast<void>(level);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
#endif
}

// ---- Memory ------------------------------------------------------------------------------------

// Largest alignment the aligned allocator accepts, in bytes.
constexpr size_t kMaxAlignment = 256;

bool isValidAlignment(size_t alignment) {
    return alignment != 0 && alignment <= kMaxAlignment && (alignment & (alignment - 1)) == 0;
}

// Spare bytes requested beyond `size` so that the block start fits in the word before the aligned
// address at every alignment. The classic layout asks for alignment + 3, which holds a 4-byte
// pointer: the aligned address always lies at least 4 bytes past the block start. With 8-byte
// pointers alignments below 8 would leave too little room, so the spare grows to alignment +
// sizeof(void*) - 1; on a 32-bit target this is the classic alignment + 3 exactly.
constexpr size_t spareBytes(size_t alignment) {
    return alignment + sizeof(void*) - 1;
}

// ---- Time --------------------------------------------------------------------------------------

constexpr int64_t kNanosPerSecond = 1000000000;
constexpr int64_t kMicrosPerSecond = 1000000;
constexpr int64_t kNanosPerMilli = 1000000;
constexpr unsigned int kMicrosPerMilli = 1000;

int64_t readClock(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * kNanosPerSecond + ts.tv_nsec;
}

int64_t toMicros(const timeval& tv) {
    return static_cast<int64_t>(tv.tv_sec) * kMicrosPerSecond + tv.tv_usec;
}

// The kernel keeps 16 bytes of a thread name, the terminating zero included.
constexpr size_t kMaxThreadNameLength = 15;

}  // namespace

// ---- Error code --------------------------------------------------------------------------------

int arGetError() {
    std::lock_guard<std::mutex> lock(gErrorMutex);
    const int code = gError;
    gError = AR_ERROR_NONE;
    return code;
}

int arSetError(int code) {
    if (code >= AR_ERROR_LIMIT || code < AR_ERROR_NONE) {
        storeError(AR_ERROR_INVALID_HANDLE);
        arLogPrint(AR_LOG_LEVEL_ERROR, "Invalid error code %d", code);
        return -1;
    }
    storeError(code);
    return 0;
}

// ---- System log --------------------------------------------------------------------------------

int arLogMessage(int level, const char* tag, const char* text) {
    if (text == nullptr) {
        return -1;
    }
    if (level == AR_LOG_LEVEL_NONE) {
        return 0;
    }
    if (level < AR_LOG_LEVEL_NONE || level > AR_LOG_LEVEL_VERBOSE) {
        arSetError(AR_ERROR_INVALID_VALUE);
        arLogPrint(AR_LOG_LEVEL_ERROR, "Erroneous log level %d", level);
        return -1;
    }
    const char* colon = std::strchr(text, ':');
    systemLogWrite(level, tag != nullptr ? tag : kSystemLogTag, colon != nullptr ? colon : "");
    return 0;
}

void arLogPrint(int level, const char* format, ...) {
    if (level <= AR_LOG_LEVEL_NONE || level > AR_LOG_LEVEL_VERBOSE || format == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    systemLogVPrint(level, format, args);
    va_end(args);
}

// ---- Memory ------------------------------------------------------------------------------------

void* arMemoryAlloc(size_t size) {
    void* p = std::malloc(size);
    if (p == nullptr) {
        arSetError(AR_ERROR_FAILED);
        arLogPrint(AR_LOG_LEVEL_ERROR, "Failed to allocate %zu bytes of memory", size);
    }
    return p;
}

void arMemoryFree(void* p) {
    if (p != nullptr) {
        std::free(p);
    }
}

void* arMemoryAllocAligned(size_t size, size_t alignment) {
    if (!isValidAlignment(alignment)) {
        arSetError(AR_ERROR_INVALID_VALUE);
        arLogPrint(AR_LOG_LEVEL_ERROR, "Invalid alignment value");
        return nullptr;
    }
    const size_t spare = spareBytes(alignment);
    const size_t total = size + spare;
    void* raw = total < size ? nullptr : std::malloc(total);
    if (raw == nullptr) {
        arSetError(AR_ERROR_FAILED);
        arLogPrint(AR_LOG_LEVEL_ERROR, "Failed to allocate %zu bytes of memory", total);
        return nullptr;
    }
    const uintptr_t aligned = (reinterpret_cast<uintptr_t>(raw) + spare) & ~(alignment - 1);
    // The word before `aligned` may itself be misaligned for small alignments: copy bytes.
    std::memcpy(reinterpret_cast<void*>(aligned - sizeof(void*)), &raw, sizeof(void*));
    return reinterpret_cast<void*>(aligned);
}

void arMemoryFreeAligned(void* p) {
    if (p == nullptr) {
        return;
    }
    void* raw = nullptr;
    std::memcpy(&raw, static_cast<char*>(p) - sizeof(void*), sizeof(void*));
    std::free(raw);
}

// ---- Time --------------------------------------------------------------------------------------

int64_t arTimeGetTimestamp() {
    return readClock(CLOCK_MONOTONIC);
}

int64_t arTimeGetNanoSeconds() {
    return readClock(CLOCK_REALTIME);
}

double arTimeGetSeconds() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / kMicrosPerSecond;
}

struct ArTiming {
    bool running = false;
    timeval start{};
    timeval stop{};
    int64_t elapsedSeconds = 0;
    int64_t elapsedMicroseconds = 0;
};

ArTiming* arTimingCreate() {
    return new (std::nothrow) ArTiming();
}

void arTimingDestroy(ArTiming* handle) {
    delete handle;
}

int arTimingBeginSection(ArTiming* handle) {
    if (handle == nullptr) {
        arSetError(AR_ERROR_INVALID_HANDLE);
        arLogPrint(AR_LOG_LEVEL_ERROR, "arTimingBeginSection: timingHandle is NULL");
        return -1;
    }
    *handle = ArTiming();
    gettimeofday(&handle->start, nullptr);
    handle->running = true;
    return 0;
}

int arTimingEndSection(ArTiming* handle, int64_t* microseconds) {
    if (handle == nullptr) {
        arSetError(AR_ERROR_INVALID_HANDLE);
        arLogPrint(AR_LOG_LEVEL_ERROR, "arTimingEndSection: timingHandle is NULL");
        return -1;
    }
    if (microseconds == nullptr) {
        arSetError(AR_ERROR_INVALID_PARAMETER);
        arLogPrint(AR_LOG_LEVEL_ERROR, "arTimingEndSection: Invalid duration parameter");
        return -1;
    }
    if (!handle->running) {
        arSetError(AR_ERROR_WRONG_STATE);
        arLogPrint(AR_LOG_LEVEL_ERROR, "arTimingEndSection: Cannot stop if it was not started");
        return -1;
    }
    gettimeofday(&handle->stop, nullptr);
    handle->running = false;
    const int64_t elapsed = toMicros(handle->stop) - toMicros(handle->start);
    handle->elapsedSeconds = elapsed / kMicrosPerSecond;
    handle->elapsedMicroseconds = elapsed % kMicrosPerSecond;
    *microseconds = elapsed;
    return 0;
}

int arTimingGetElapsedTime(ArTiming* handle, int64_t* microseconds) {
    if (handle == nullptr || microseconds == nullptr) {
        arSetError(AR_ERROR_INVALID_PARAMETER);
        return -1;
    }
    if (!handle->running) {
        arLogPrint(AR_LOG_LEVEL_WARNING, "WARNING: Timing is not started, duration will be 0");
        *microseconds = 0;
        return -1;
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    *microseconds = toMicros(now) - toMicros(handle->start);
    return 0;
}

// ---- Threads, mutexes, conditions --------------------------------------------------------------

struct ArThread {
    pthread_t thread;
};
struct ArMutex {
    pthread_mutex_t mutex;
};
struct ArCond {
    pthread_cond_t cond;
};

namespace {

bool checkMutex(const ArMutex* mutex) {
    if (mutex == nullptr) {
        arSetError(AR_ERROR_INVALID_HANDLE);
        arLogPrint(AR_LOG_LEVEL_ERROR, "Mutex is invalid");
        return false;
    }
    return true;
}

bool checkCond(const ArCond* cond) {
    if (cond == nullptr) {
        arSetError(AR_ERROR_INVALID_HANDLE);
        arLogPrint(AR_LOG_LEVEL_ERROR, "Condition variable is invalid");
        return false;
    }
    return true;
}

int posixResult(int result) {
    if (result != 0) {
        arSetError(AR_ERROR_FAILED);
        return -1;
    }
    return 0;
}

}  // namespace

ArThread* arThreadCreate(ArThreadStart start, void* argument, const char* name) {
    if (start == nullptr) {
        arSetError(AR_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    ArThread* handle = new (std::nothrow) ArThread();
    if (handle == nullptr || pthread_create(&handle->thread, nullptr, start, argument) != 0) {
        delete handle;
        arSetError(AR_ERROR_FAILED);
        return nullptr;
    }
    if (name != nullptr) {
        char shortName[kMaxThreadNameLength + 1];
        std::snprintf(shortName, sizeof(shortName), "%s", name);
        pthread_setname_np(handle->thread, shortName);
    }
    return handle;
}

int arThreadJoin(ArThread* thread) {
    if (thread == nullptr) {
        arSetError(AR_ERROR_INVALID_HANDLE);
        return -1;
    }
    const int result = pthread_join(thread->thread, nullptr);
    delete thread;
    return posixResult(result);
}

void arThreadSleepMilliSeconds(unsigned int milliseconds) {
    usleep(static_cast<useconds_t>(milliseconds) * kMicrosPerMilli);
}

ArMutex* arThreadMutexCreate() {
    ArMutex* mutex = new (std::nothrow) ArMutex();
    if (mutex == nullptr || pthread_mutex_init(&mutex->mutex, nullptr) != 0) {
        delete mutex;
        arSetError(AR_ERROR_FAILED);
        return nullptr;
    }
    return mutex;
}

int arThreadMutexDestroy(ArMutex* mutex) {
    if (!checkMutex(mutex)) {
        return -1;
    }
    const int result = pthread_mutex_destroy(&mutex->mutex);
    delete mutex;
    return posixResult(result);
}

int arThreadMutexLock(ArMutex* mutex) {
    return checkMutex(mutex) ? posixResult(pthread_mutex_lock(&mutex->mutex)) : -1;
}

int arThreadMutexTryLock(ArMutex* mutex) {
    if (!checkMutex(mutex)) {
        return -1;
    }
    const int result = pthread_mutex_trylock(&mutex->mutex);
    if (result == EBUSY) {
        return -1;
    }
    return posixResult(result);
}

int arThreadMutexUnlock(ArMutex* mutex) {
    return checkMutex(mutex) ? posixResult(pthread_mutex_unlock(&mutex->mutex)) : -1;
}

ArCond* arThreadCondCreate() {
    ArCond* cond = new (std::nothrow) ArCond();
    if (cond == nullptr || pthread_cond_init(&cond->cond, nullptr) != 0) {
        delete cond;
        arSetError(AR_ERROR_FAILED);
        return nullptr;
    }
    return cond;
}

int arThreadCondDestroy(ArCond* cond) {
    if (!checkCond(cond)) {
        return -1;
    }
    const int result = pthread_cond_destroy(&cond->cond);
    delete cond;
    return posixResult(result);
}

int arThreadCondSignal(ArCond* cond) {
    return checkCond(cond) ? posixResult(pthread_cond_signal(&cond->cond)) : -1;
}

int arThreadCondBroadcast(ArCond* cond) {
    return checkCond(cond) ? posixResult(pthread_cond_broadcast(&cond->cond)) : -1;
}

int arThreadCondWait(ArCond* cond, ArMutex* mutex) {
    if (!checkCond(cond) || !checkMutex(mutex)) {
        return -1;
    }
    return posixResult(pthread_cond_wait(&cond->cond, &mutex->mutex));
}

int arThreadCondTimedWait(ArCond* cond, ArMutex* mutex, unsigned int milliseconds) {
    if (!checkCond(cond) || !checkMutex(mutex)) {
        return -1;
    }
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += milliseconds / kMicrosPerMilli;
    deadline.tv_nsec += static_cast<long>(milliseconds % kMicrosPerMilli) * kNanosPerMilli;
    if (deadline.tv_nsec >= kNanosPerSecond) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNanosPerSecond;
    }
    const int result = pthread_cond_timedwait(&cond->cond, &mutex->mutex, &deadline);
    if (result == ETIMEDOUT) {
        arSetError(AR_ERROR_TIMEOUT);
        return -1;
    }
    if (result == EINVAL) {
        arSetError(AR_ERROR_WRONG_STATE);
        return -1;
    }
    return posixResult(result);
}

// ---- Files -------------------------------------------------------------------------------------

struct ArFile {
    FILE* stream;
};

namespace {

bool checkFile(const ArFile* file) {
    if (file == nullptr) {
        arSetError(AR_ERROR_INVALID_PARAMETER);
        arLogPrint(AR_LOG_LEVEL_ERROR, "File is invalid");
        return false;
    }
    return true;
}

bool checkBuffer(const void* buffer) {
    if (buffer == nullptr) {
        arSetError(AR_ERROR_INVALID_PARAMETER);
        arLogPrint(AR_LOG_LEVEL_ERROR, "Buffer is invalid");
        return false;
    }
    return true;
}

bool checkPath(const char* path) {
    if (path == nullptr || path[0] == '\0') {
        arSetError(AR_ERROR_INVALID_PARAMETER);
        return false;
    }
    return true;
}

// Permissions of a new directory before the umask: read, write and search for everyone.
constexpr mode_t kDirectoryMode = 0777;

}  // namespace

int arFileExists(const char* path) {
    if (path == nullptr) {
        arSetError(AR_ERROR_INVALID_PARAMETER);
        arLogPrint(AR_LOG_LEVEL_ERROR, "arFileExists(): Path parameter is invalid");
        return -1;
    }
    if (path[0] == '\0') {
        return 0;
    }
    struct stat info {};
    if (stat(path, &info) == 0) {
        return 1;
    }
    // Anything but a missing entry (no permission, a loop, a long name) counts as present.
    return errno == ENOENT || errno == ENOTDIR ? 0 : 1;
}

ArFile* arFileOpen(const char* path, const char* mode) {
    if (!checkPath(path) || mode == nullptr) {
        arSetError(AR_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    FILE* stream = std::fopen(path, mode);
    if (stream == nullptr) {
        arSetError(AR_ERROR_FAILED);
        return nullptr;
    }
    ArFile* file = new (std::nothrow) ArFile{stream};
    if (file == nullptr) {
        std::fclose(stream);
        arSetError(AR_ERROR_FAILED);
    }
    return file;
}

int arFileClose(ArFile* file) {
    if (!checkFile(file)) {
        return -1;
    }
    const int result = std::fclose(file->stream);
    delete file;
    return posixResult(result);
}

int64_t arFileRead(ArFile* file, void* buffer, size_t size) {
    if (!checkFile(file) || !checkBuffer(buffer)) {
        return -1;
    }
    return static_cast<int64_t>(std::fread(buffer, 1, size, file->stream));
}

int64_t arFileWrite(ArFile* file, const void* buffer, size_t size) {
    if (!checkFile(file) || !checkBuffer(buffer)) {
        return -1;
    }
    return static_cast<int64_t>(std::fwrite(buffer, 1, size, file->stream));
}

int arFileFlush(ArFile* file) {
    return checkFile(file) ? posixResult(std::fflush(file->stream)) : -1;
}

int arFilePrint(ArFile* file, const char* format, ...) {
    if (!checkFile(file) || !checkBuffer(format)) {
        return -1;
    }
    va_list args;
    va_start(args, format);
    const int written = std::vfprintf(file->stream, format, args);
    va_end(args);
    return written < 0 ? posixResult(written) : written;
}

int arFileIsEOF(ArFile* file) {
    if (!checkFile(file)) {
        return -1;
    }
    return std::feof(file->stream) != 0 ? 1 : 0;
}

int arFileSetPosition(ArFile* file, int64_t offset, int origin) {
    if (!checkFile(file)) {
        return -1;
    }
    return posixResult(fseeko(file->stream, static_cast<off_t>(offset), origin));
}

int64_t arFileGetPosition(ArFile* file) {
    if (!checkFile(file)) {
        return -1;
    }
    return static_cast<int64_t>(ftello(file->stream));
}

int arFileDeleteFile(const char* path) {
    return checkPath(path) ? posixResult(unlink(path)) : -1;
}

int arFileCreateDirectory(const char* path) {
    return checkPath(path) ? posixResult(mkdir(path, kDirectoryMode)) : -1;
}

int arFileDeleteEmptyDirectory(const char* path) {
    return checkPath(path) ? posixResult(rmdir(path)) : -1;
}
