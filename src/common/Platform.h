// The thin layer of plain `ar` functions through which the library reaches the operating system:
// the process-wide error code, counted-free heap memory, clocks, section timing, threads,
// mutexes, condition variables, files and the system log. Everything above it (OS, Logger,
// Trace, Mutex, Timing) is written against these functions only, so porting the library means
// porting this file pair. The same source builds for Android (system log = logcat) and for Linux
// (system log = standard error).
//
// Return convention: 0 on success and -1 on failure, unless a function says otherwise; a failure
// also stores an error code that `arGetError` hands out once.
#ifndef VELMORA_COMMON_PLATFORM_H
#define VELMORA_COMMON_PLATFORM_H

#include <cstddef>
#include <cstdint>

// ---- Error codes -------------------------------------------------------------------------------

// Every stored code is below this bound; anything else is replaced by AR_ERROR_INVALID_HANDLE.
constexpr int AR_ERROR_LIMIT = 10;
constexpr int AR_ERROR_NONE = 0;
constexpr int AR_ERROR_INVALID_PARAMETER = 2;  // invalid parameter or path
constexpr int AR_ERROR_INVALID_VALUE = 3;      // invalid value (alignment, log level)
constexpr int AR_ERROR_INVALID_HANDLE = 4;     // invalid handle, or an invalid error code
constexpr int AR_ERROR_WRONG_STATE = 5;        // wrong state, invalid wait parameter
constexpr int AR_ERROR_FAILED = 6;             // operation failed, out of memory
constexpr int AR_ERROR_TIMEOUT = 8;            // timed wait expired

// Returns the stored code and clears it to 0. Safe from any thread.
int arGetError();
// Stores `code` (below 10) and returns 0; a larger code stores 4, logs and returns -1.
int arSetError(int code);

// ---- System log --------------------------------------------------------------------------------

// Log levels of the system log: 0 writes nothing, 1 error ... 5 verbose.
constexpr int AR_LOG_LEVEL_NONE = 0;
constexpr int AR_LOG_LEVEL_ERROR = 1;
constexpr int AR_LOG_LEVEL_WARNING = 2;
constexpr int AR_LOG_LEVEL_DEBUG = 3;
constexpr int AR_LOG_LEVEL_INFO = 4;
constexpr int AR_LOG_LEVEL_VERBOSE = 5;

// Writes a finished logger line to the system log. Only the part from the first colon on is
// written (the level is already carried by the priority); a text without a colon is written
// empty. Null text gives -1, level 0 gives 0 and writes nothing, a level outside 0..5 sets
// error 3, logs "Erroneous log level %d" as an error and gives -1.
int arLogMessage(int level, const char* tag, const char* text);
// printf-style line of the layer's own diagnostics, straight to the system log.
void arLogPrint(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// ---- Memory ------------------------------------------------------------------------------------

// malloc; on failure error 6, a log line and null.
void* arMemoryAlloc(size_t size);
// free; null is ignored.
void arMemoryFree(void* p);
// `alignment` one of 1, 2, 4, ..., 256 (else error 3, log, null). The block start is stored in
// the pointer-wide word just before the returned address.
void* arMemoryAllocAligned(size_t size, size_t alignment);
// Frees a block of arMemoryAllocAligned; null is ignored.
void arMemoryFreeAligned(void* p);

// ---- Time --------------------------------------------------------------------------------------

// Monotonic clock, nanoseconds.
int64_t arTimeGetTimestamp();
// Real-time clock, nanoseconds since the epoch.
int64_t arTimeGetNanoSeconds();
// Wall-clock seconds from gettimeofday.
double arTimeGetSeconds();

// Section timing on the wall clock (microsecond resolution). The handle belongs to one thread.
struct ArTiming;
ArTiming* arTimingCreate();
void arTimingDestroy(ArTiming* handle);
int arTimingBeginSection(ArTiming* handle);
// Stops the running section and writes its length in microseconds; error 5 if none runs.
int arTimingEndSection(ArTiming* handle, int64_t* microseconds);
// Length of the running section so far; with none running writes 0 and returns -1.
int arTimingGetElapsedTime(ArTiming* handle, int64_t* microseconds);

// ---- Threads, mutexes, conditions --------------------------------------------------------------

struct ArThread;
struct ArMutex;
struct ArCond;
using ArThreadStart = void* (*)(void*);

// Starts a thread with default attributes, named `name` when not null (cut to the 15 characters
// the kernel keeps). Returns null on failure.
ArThread* arThreadCreate(ArThreadStart start, void* argument, const char* name);
// Waits for the thread and frees its handle.
int arThreadJoin(ArThread* thread);
void arThreadSleepMilliSeconds(unsigned int milliseconds);

ArMutex* arThreadMutexCreate();
int arThreadMutexDestroy(ArMutex* mutex);
int arThreadMutexLock(ArMutex* mutex);
// 0 when taken, -1 when busy (no error stored) or on failure.
int arThreadMutexTryLock(ArMutex* mutex);
int arThreadMutexUnlock(ArMutex* mutex);

ArCond* arThreadCondCreate();
int arThreadCondDestroy(ArCond* cond);
int arThreadCondSignal(ArCond* cond);
int arThreadCondBroadcast(ArCond* cond);
int arThreadCondWait(ArCond* cond, ArMutex* mutex);
// Waits at most `milliseconds` on the real-time clock; expiry stores error 8 and returns -1.
int arThreadCondTimedWait(ArCond* cond, ArMutex* mutex, unsigned int milliseconds);

// ---- Files -------------------------------------------------------------------------------------

struct ArFile;

// 1 when the path exists, and also when it exists but cannot be examined; 0 when it is missing or
// the path is empty. A null path stores error 2 and gives -1.
int arFileExists(const char* path);
// `mode` as for fopen ("rb", "wb", "ab", ...). Returns null on failure.
ArFile* arFileOpen(const char* path, const char* mode);
int arFileClose(ArFile* file);
// Return the number of bytes moved, or -1 with an invalid file or buffer.
int64_t arFileRead(ArFile* file, void* buffer, size_t size);
int64_t arFileWrite(ArFile* file, const void* buffer, size_t size);
int arFileFlush(ArFile* file);
int arFilePrint(ArFile* file, const char* format, ...) __attribute__((format(printf, 2, 3)));
// 1 at the end of the file, 0 before it, -1 with an invalid file.
int arFileIsEOF(ArFile* file);
// `origin` is SEEK_SET, SEEK_CUR or SEEK_END.
int arFileSetPosition(ArFile* file, int64_t offset, int origin);
// Byte offset from the start, or -1.
int64_t arFileGetPosition(ArFile* file);
int arFileDeleteFile(const char* path);
int arFileCreateDirectory(const char* path);
int arFileDeleteEmptyDirectory(const char* path);

#endif  // VELMORA_COMMON_PLATFORM_H
