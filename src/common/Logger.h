// The process-wide logger. One instance, made on first use and destroyed at process exit. A line
// goes to the log file when one is set, else to the system log (flag FLAG_SYSTEM_LOG), and always
// to every registered LogTarget.
//
// Cost rule: call sites test `getLevel()` before they build any argument, so that a dropped
// message costs one load and one compare. The AR_LOG* macros below do exactly that.
//
// Thread safety: every logging call runs under the logger's mutex (the line buffers are shared);
// `getLevel` is a plain (atomic, relaxed) read. Targets are called under that mutex and must not
// log themselves.
#ifndef VELMORA_COMMON_LOGGER_H
#define VELMORA_COMMON_LOGGER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace AR {
namespace Common {

// A sink for finished lines. The logger does not own its targets.
class LogTarget {
public:
    virtual ~LogTarget() = default;
    // Handed each finished line (`length` bytes, also zero-terminated) with its level.
    virtual void write(int level, const char* text, size_t length) = 0;
};

// Per-function levels: a tree with one level of nodes for each part of a qualified function name
// ("Solid::VolumeGrid::ensure" is Solid -> VolumeGrid -> ensure). The root holds the logger's
// level, so with no other entries the filter answers like the level. Not synchronised: the
// logger calls it under its mutex; edit it while no other thread logs.
class LogFilter {
public:
    enum class Mode {
        Subtree,  // the level holds for the name and every name below it, unless overridden
        Exact,    // the level holds for exactly this name
    };

    explicit LogFilter(int level);
    ~LogFilter();

    // A null name sets the root.
    void setFilterLevel(const char* name, int level, Mode mode = Mode::Subtree);
    void removeFilterLevel(const char* name);
    // Whether a message of `level` from the function `name` (first `length` characters) passes.
    bool allowed(const char* name, size_t length, int level) const;
    void setLevel(int level);

private:
    struct Node {
        static constexpr int kNoLevel = -1;  // the node only routes to its children
        int level = kNoLevel;
        Mode mode = Mode::Subtree;
        std::map<std::string, std::unique_ptr<Node>> children;
    };

    Node mRoot;
};

class Logger {
public:
    using LEVEL = int;
    static constexpr LEVEL LEVEL_NONE = 0;
    static constexpr LEVEL LEVEL_ERROR = 1;
    static constexpr LEVEL LEVEL_WARNING = 2;
    static constexpr LEVEL LEVEL_DEBUG = 3;
    static constexpr LEVEL LEVEL_INFO = 4;
    static constexpr LEVEL LEVEL_VERBOSE = 5;
    static constexpr LEVEL kDefaultLevel = LEVEL_DEBUG;

    // Flag bits of setFlag/getFlag.
    static constexpr uint32_t FLAG_DATE_TIME = 1;   // prefix local date and time
    static constexpr uint32_t FLAG_SYSTEM_LOG = 2;  // write to the system log (if no file)
    static constexpr uint32_t FLAG_FUNCTION = 4;    // add the function name
    static constexpr uint32_t FLAG_FILE_LINE = 8;   // add file and line
    static constexpr uint32_t FLAG_FILTER = 16;     // consult the LogFilter
    static constexpr uint32_t FLAG_LEVEL = 32;      // prefix "AR <LEVEL>: "
    static constexpr uint32_t kDefaultFlags = FLAG_SYSTEM_LOG | FLAG_LEVEL;

    // Function names longer than this keep their last characters only.
    static constexpr size_t kMaxFunctionNameLength = 80;
    // A finished line holds at most this many characters; the rest is cut.
    static constexpr size_t kLineBufferSize = 2048;

    static Logger& getInstance();

    LEVEL getLevel() const { return mLevel.load(std::memory_order_relaxed); }
    void setLevel(LEVEL level);
    void setFlag(uint32_t bit, bool on);
    bool getFlag(uint32_t bit) const;

    // The main entry: printf-style message from a source location. `function` is a full
    // signature (__PRETTY_FUNCTION__); it is reduced to its qualified name. A null function logs
    // nothing.
    void logEx2(LEVEL level, const char* file, const char* function, int line, const char* format,
                ...) __attribute__((format(printf, 6, 7)));
    // Text taken as it stands (no format expansion), without and with a source location.
    void log2(LEVEL level, const char* text);
    void log2(LEVEL level, const char* file, const char* function, int line, const char* text);
    // Hands out a finished line (dropped above the level): file or system log, then the targets.
    void logRawString2(LEVEL level, const char* text, size_t length);

    // Log file: opened for appending on the next line; `closeEachTime` closes it after each line;
    // `clear` empties it now. An empty path turns the file off.
    void setFile(const std::string& path, bool closeEachTime, bool clear);
    void clearLogFile();
    void closeFile();

    void addTarget(LogTarget* target);
    void removeTarget(LogTarget* target);
    LogFilter& getLogFilter();

    // Writes the assertion report at level 1 to the file or system log and the targets, and also
    // to the system log when the file takes it or the system log is off: the report of a dying
    // process must reach standard error / logcat.
    void logFatal(const char* text);

    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

private:
    struct LoggerPIMPL;

    Logger();

    std::atomic<LEVEL> mLevel{kDefaultLevel};
    std::unique_ptr<LoggerPIMPL> mImpl;
};

// Length of the name that `function` (a full signature) reduces to, and where it starts: the text
// behind the last blank (or '*', '&') before the first '(' , cut to its last 80 characters.
const char* reduceFunctionName(const char* function, size_t* length);

// The assertion report "AR_ASSERT <condition> <file>(<line>) <function>" (function cut to 100
// characters) through the logger, then the end of the process.
[[noreturn]] void logError(const char* condition, const char* file, const char* function, int line);

// Longest line that logOnelineString accepts, in characters.
constexpr size_t MAX_LOG_LINE_LEN = 900;
// Logs `text` at `level`; a longer text than MAX_LOG_LINE_LEN aborts; a level outside 1..5 logs
// "Unsupported log level %d message %s" as an error instead.
void logOnelineString(const char* text, int level);

}  // namespace Common
}  // namespace AR

// Level-tested logging from the call site: no argument is evaluated when the level drops it.
#define AR_LOG(level, ...)                                                                  \
    do {                                                                                    \
        ::AR::Common::Logger& arLogger = ::AR::Common::Logger::getInstance();               \
        if (arLogger.getLevel() >= (level)) {                                               \
            arLogger.logEx2((level), __FILE__, __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__); \
        }                                                                                   \
    } while (0)
#define AR_LOG_ERROR(...) AR_LOG(::AR::Common::Logger::LEVEL_ERROR, __VA_ARGS__)
#define AR_LOG_WARNING(...) AR_LOG(::AR::Common::Logger::LEVEL_WARNING, __VA_ARGS__)
#define AR_LOG_DEBUG(...) AR_LOG(::AR::Common::Logger::LEVEL_DEBUG, __VA_ARGS__)
#define AR_LOG_INFO(...) AR_LOG(::AR::Common::Logger::LEVEL_INFO, __VA_ARGS__)
#define AR_LOG_VERBOSE(...) AR_LOG(::AR::Common::Logger::LEVEL_VERBOSE, __VA_ARGS__)

#endif  // VELMORA_COMMON_LOGGER_H
