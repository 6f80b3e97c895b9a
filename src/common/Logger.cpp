#include "common/Logger.h"

#include <time.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "common/Assert.h"
#include "common/Mutex.h"
#include "common/Path.h"
#include "common/Platform.h"

namespace AR {
namespace Common {

namespace {

// The tag of every system-log line of the library.
constexpr const char* kLogTag = "AR";
// Text of each level 0..5; other levels print empty.
constexpr const char* kLevelText[] = {"", "ERROR", "WARNING", "DEBUG", "INFO", "VERBOSE"};
constexpr int kNumLevels = static_cast<int>(sizeof(kLevelText) / sizeof(kLevelText[0]));
// The assertion report cuts the function signature to this many characters.
constexpr int kMaxAssertFunctionLength = 100;
// Room for the assertion report and the unsupported-level message.
constexpr size_t kReportBufferSize = 1024;
// struct tm counts years from 1900 and months from 0.
constexpr unsigned kTmYearBase = 1900;
constexpr const char* kNameSeparator = "::";
constexpr size_t kNameSeparatorLength = 2;

const char* levelText(int level) {
    return level >= 0 && level < kNumLevels ? kLevelText[level] : "";
}

// Appends formatted text to a fixed buffer, cutting what does not fit; the buffer stays
// zero-terminated. A formatting error poisons the builder.
class LineBuilder {
public:
    LineBuilder(char* buffer, size_t capacity) : mBuffer(buffer), mCapacity(capacity) {
        mBuffer[0] = '\0';
    }

    void vappend(const char* format, va_list args) {
        if (mFailed) {
            return;
        }
        const int written = std::vsnprintf(mBuffer + mLength, mCapacity - mLength, format, args);
        if (written < 0) {
            mFailed = true;
            return;
        }
        mLength = std::min(mLength + static_cast<size_t>(written), mCapacity - 1);
    }

    void append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, format);
        vappend(format, args);
        va_end(args);
    }

    bool failed() const { return mFailed; }
    size_t length() const { return mLength; }

private:
    char* mBuffer;
    size_t mCapacity;
    size_t mLength = 0;
    bool mFailed = false;
};

// The fields of one line besides its message.
struct LineFields {
    uint32_t flags;
    int level;
    const char* file;
    const char* name;
    size_t nameLength;
    int line;
};

// Writes the line prefix chosen by the flag bits (level, time, function) into `builder`.
void appendPrefix(LineBuilder& builder, const LineFields& fields) {
    if ((fields.flags & Logger::FLAG_LEVEL) != 0) {
        builder.append("AR %s: ", levelText(fields.level));
    }
    if ((fields.flags & Logger::FLAG_DATE_TIME) != 0) {
        const time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        builder.append(
            "%u-%02u-%02u %02u:%02u:%02u: ", static_cast<unsigned>(local.tm_year) + kTmYearBase,
            static_cast<unsigned>(local.tm_mon) + 1, static_cast<unsigned>(local.tm_mday),
            static_cast<unsigned>(local.tm_hour), static_cast<unsigned>(local.tm_min),
            static_cast<unsigned>(local.tm_sec));
    }
    if ((fields.flags & Logger::FLAG_FUNCTION) != 0) {
        const int nameLength = static_cast<int>(fields.nameLength);
        if ((fields.flags & Logger::FLAG_FILE_LINE) != 0) {
            builder.append("%.*s() [%i]: ", nameLength, fields.name, fields.line);
        } else {
            builder.append("%.*s(): ", nameLength, fields.name);
        }
    }
}

// Ends the line: file and line on a line of their own, or a plain newline. The bare format (no
// bit set) is the message text as it stands, with nothing added.
void appendSuffix(LineBuilder& builder, const LineFields& fields) {
    if ((fields.flags & Logger::FLAG_FILE_LINE) != 0) {
        builder.append("\n%s(%d)\n", fields.file, fields.line);
    } else if ((fields.flags &
                (Logger::FLAG_LEVEL | Logger::FLAG_DATE_TIME | Logger::FLAG_FUNCTION)) != 0) {
        builder.append("\n");
    }
}

// The bits that choose the line format of a message with no source location.
constexpr uint32_t kShortFormatBits = Logger::FLAG_DATE_TIME | Logger::FLAG_LEVEL;
// The bits that choose the line format of a located message.
constexpr uint32_t kFullFormatBits =
    kShortFormatBits | Logger::FLAG_FUNCTION | Logger::FLAG_FILE_LINE;

std::vector<std::string> splitName(const char* name, size_t length) {
    std::vector<std::string> parts;
    const std::string text(name, length);
    size_t start = 0;
    while (start <= text.size()) {
        const size_t end = text.find(kNameSeparator, start);
        const size_t stop = end == std::string::npos ? text.size() : end;
        if (stop > start) {
            parts.push_back(text.substr(start, stop - start));
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + kNameSeparatorLength;
    }
    return parts;
}

}  // namespace

// ---- LogFilter ---------------------------------------------------------------------------------

LogFilter::LogFilter(int level) {
    mRoot.level = level;
}

LogFilter::~LogFilter() = default;

void LogFilter::setLevel(int level) {
    mRoot.level = level;
}

void LogFilter::setFilterLevel(const char* name, int level, Mode mode) {
    if (name == nullptr) {
        mRoot.level = level;
        return;
    }
    Node* node = &mRoot;
    for (const std::string& part : splitName(name, std::strlen(name))) {
        std::unique_ptr<Node>& child = node->children[part];
        if (!child) {
            child = std::make_unique<Node>();
        }
        node = child.get();
    }
    node->level = level;
    node->mode = mode;
}

void LogFilter::removeFilterLevel(const char* name) {
    if (name == nullptr) {
        return;
    }
    const std::vector<std::string> parts = splitName(name, std::strlen(name));
    // The path down to the entry, to prune nodes that route to nothing any more.
    std::vector<Node*> path{&mRoot};
    for (const std::string& part : parts) {
        auto found = path.back()->children.find(part);
        if (found == path.back()->children.end()) {
            return;
        }
        path.push_back(found->second.get());
    }
    if (path.size() == 1) {
        return;
    }
    path.back()->level = Node::kNoLevel;
    for (size_t i = path.size() - 1; i > 0; --i) {
        if (path[i]->level != Node::kNoLevel || !path[i]->children.empty()) {
            break;
        }
        path[i - 1]->children.erase(parts[i - 1]);
    }
}

bool LogFilter::allowed(const char* name, size_t length, int level) const {
    int effective = mRoot.level;
    if (name != nullptr) {
        const std::vector<std::string> parts = splitName(name, length);
        const Node* node = &mRoot;
        for (size_t i = 0; i < parts.size(); ++i) {
            auto found = node->children.find(parts[i]);
            if (found == node->children.end()) {
                break;
            }
            node = found->second.get();
            const bool last = i + 1 == parts.size();
            if (node->level != Node::kNoLevel && (node->mode == Mode::Subtree || last)) {
                effective = node->level;
            }
        }
    }
    return level <= effective;
}

// ---- Logger ------------------------------------------------------------------------------------

struct Logger::LoggerPIMPL {
    Path logPath;
    ArFile* logFile = nullptr;
    bool closeEachTime = false;
    std::vector<LogTarget*> targets;
    char line[kLineBufferSize];
    std::atomic<uint32_t> flags{kDefaultFlags};
    Mutex mutex;
    LogFilter filter{kDefaultLevel};

    void closeLogFile() {
        if (logFile != nullptr) {
            arFileClose(logFile);
            logFile = nullptr;
        }
    }

    void truncateLogFile() {
        closeLogFile();
        if (!logPath.empty()) {
            ArFile* file = arFileOpen(logPath.c_str(), "wb");
            if (file != nullptr) {
                arFileClose(file);
            }
        }
    }

    // Hands a finished line out; the caller holds the mutex. True when the system log took it.
    bool writeLine(int level, const char* text, size_t length) {
        bool toSystemLog = false;
        if (logFile == nullptr && !logPath.empty()) {
            logFile = arFileOpen(logPath.c_str(), "ab");
        }
        if (logFile != nullptr) {
            arFileWrite(logFile, text, length);
            if (closeEachTime) {
                closeLogFile();
            } else {
                arFileFlush(logFile);
            }
        } else if ((flags.load() & FLAG_SYSTEM_LOG) != 0) {
            arLogMessage(level, kLogTag, text);
            toSystemLog = true;
        }
        for (LogTarget* target : targets) {
            target->write(level, text, length);
        }
        return toSystemLog;
    }
};

Logger& Logger::getInstance() {
    static Logger instance;
    return instance;
}

Logger::Logger() : mImpl(std::make_unique<LoggerPIMPL>()) {}

Logger::~Logger() {
    mImpl->closeLogFile();
}

void Logger::setLevel(LEVEL level) {
    std::lock_guard<Mutex> lock(mImpl->mutex);
    mLevel.store(level, std::memory_order_relaxed);
    mImpl->filter.setLevel(level);
}

void Logger::setFlag(uint32_t bit, bool on) {
    if (on) {
        mImpl->flags.fetch_or(bit);
    } else {
        mImpl->flags.fetch_and(~bit);
    }
}

bool Logger::getFlag(uint32_t bit) const {
    return (mImpl->flags.load() & bit) != 0;
}

void Logger::logEx2(LEVEL level, const char* file, const char* function, int line,
                    const char* format, ...) {
    if (level > getLevel() || format == nullptr) {
        return;
    }
    std::lock_guard<Mutex> lock(mImpl->mutex);
    if (function == nullptr) {
        return;
    }
    size_t nameLength = 0;
    const char* name = reduceFunctionName(function, &nameLength);
    const uint32_t flags = mImpl->flags.load();
    const bool pass = (flags & FLAG_FILTER) != 0 ? mImpl->filter.allowed(name, nameLength, level)
                                                 : level <= getLevel();
    if (!pass) {
        return;
    }
    const LineFields fields{
        flags & kFullFormatBits, level, file != nullptr ? file : "", name, nameLength, line};
    LineBuilder builder(mImpl->line, sizeof(mImpl->line));
    appendPrefix(builder, fields);
    va_list args;
    va_start(args, format);
    builder.vappend(format, args);
    va_end(args);
    appendSuffix(builder, fields);
    if (!builder.failed()) {
        mImpl->writeLine(level, mImpl->line, builder.length());
    }
}

void Logger::log2(LEVEL level, const char* text) {
    if (level > getLevel() || text == nullptr) {
        return;
    }
    std::lock_guard<Mutex> lock(mImpl->mutex);
    const LineFields fields{mImpl->flags.load() & kShortFormatBits, level, "", "", 0, 0};
    LineBuilder builder(mImpl->line, sizeof(mImpl->line));
    appendPrefix(builder, fields);
    builder.append("%s", text);
    appendSuffix(builder, fields);
    mImpl->writeLine(level, mImpl->line, builder.length());
}

void Logger::log2(LEVEL level, const char* file, const char* function, int line, const char* text) {
    if (level > getLevel() || function == nullptr || text == nullptr) {
        return;
    }
    std::lock_guard<Mutex> lock(mImpl->mutex);
    size_t nameLength = 0;
    const char* name = reduceFunctionName(function, &nameLength);
    const uint32_t flags = mImpl->flags.load();
    if ((flags & FLAG_FILTER) != 0 && !mImpl->filter.allowed(name, nameLength, level)) {
        return;
    }
    const LineFields fields{
        flags & kFullFormatBits, level, file != nullptr ? file : "", name, nameLength, line};
    LineBuilder builder(mImpl->line, sizeof(mImpl->line));
    appendPrefix(builder, fields);
    builder.append("%s", text);
    appendSuffix(builder, fields);
    mImpl->writeLine(level, mImpl->line, builder.length());
}

void Logger::logRawString2(LEVEL level, const char* text, size_t length) {
    if (level > getLevel() || text == nullptr) {
        return;
    }
    std::lock_guard<Mutex> lock(mImpl->mutex);
    mImpl->writeLine(level, text, length);
}

void Logger::logFatal(const char* text) {
    // Composed in a local buffer: the report may come from a thread that already holds the
    // logger's mutex (an assertion inside a target), and must still get out.
    char report[kLineBufferSize];
    const LineFields fields{
        (mImpl->flags.load() & kShortFormatBits) | FLAG_LEVEL, LEVEL_ERROR, "", "", 0, 0};
    LineBuilder builder(report, sizeof(report));
    appendPrefix(builder, fields);
    builder.append("%s", text);
    appendSuffix(builder, fields);
    bool systemLogDone = false;
    if (mImpl->mutex.tryLock()) {
        systemLogDone = mImpl->writeLine(LEVEL_ERROR, report, builder.length());
        mImpl->mutex.unlock();
    }
    if (!systemLogDone) {
        arLogMessage(LEVEL_ERROR, kLogTag, report);
    }
}

void Logger::setFile(const std::string& path, bool closeEachTime, bool clear) {
    std::lock_guard<Mutex> lock(mImpl->mutex);
    mImpl->closeLogFile();
    mImpl->logPath = Path(path);
    mImpl->closeEachTime = closeEachTime;
    if (clear) {
        mImpl->truncateLogFile();
    }
}

void Logger::clearLogFile() {
    std::lock_guard<Mutex> lock(mImpl->mutex);
    mImpl->truncateLogFile();
}

void Logger::closeFile() {
    std::lock_guard<Mutex> lock(mImpl->mutex);
    mImpl->closeLogFile();
}

void Logger::addTarget(LogTarget* target) {
    std::lock_guard<Mutex> lock(mImpl->mutex);
    if (target != nullptr) {
        mImpl->targets.push_back(target);
    }
}

void Logger::removeTarget(LogTarget* target) {
    std::lock_guard<Mutex> lock(mImpl->mutex);
    auto& targets = mImpl->targets;
    targets.erase(std::remove(targets.begin(), targets.end(), target), targets.end());
}

LogFilter& Logger::getLogFilter() {
    return mImpl->filter;
}

// ---- Free functions ----------------------------------------------------------------------------

const char* reduceFunctionName(const char* function, size_t* length) {
    const char* start = function;
    const char* p = function;
    for (; *p != '\0' && *p != '('; ++p) {
        // A blank (or the '*' or '&' of a returned pointer or reference) ends the return type.
        if (*p == ' ' || *p == '*' || *p == '&') {
            start = p + 1;
        }
    }
    size_t nameLength = static_cast<size_t>(p - start);
    if (nameLength > Logger::kMaxFunctionNameLength) {
        start += nameLength - Logger::kMaxFunctionNameLength;
        nameLength = Logger::kMaxFunctionNameLength;
    }
    *length = nameLength;
    return start;
}

void logError(const char* condition, const char* file, const char* function, int line) {
    char report[kReportBufferSize];
    std::snprintf(report, sizeof(report), "AR_ASSERT %s %s(%d) %.*s",
                  condition != nullptr ? condition : "", file != nullptr ? file : "", line,
                  kMaxAssertFunctionLength, function != nullptr ? function : "");
    Logger::getInstance().logFatal(report);
    std::abort();
}

void logOnelineString(const char* text, int level) {
    AR_ASSERT(text != nullptr && std::strlen(text) <= MAX_LOG_LINE_LEN);
    Logger& logger = Logger::getInstance();
    if (level < Logger::LEVEL_ERROR || level > Logger::LEVEL_VERBOSE) {
        if (logger.getLevel() >= Logger::LEVEL_ERROR) {
            char message[kReportBufferSize + MAX_LOG_LINE_LEN];
            std::snprintf(message, sizeof(message), "Unsupported log level %d message %s", level,
                          text);
            logger.log2(Logger::LEVEL_ERROR, message);
        }
        return;
    }
    if (logger.getLevel() >= level) {
        logger.log2(level, text);
    }
}

}  // namespace Common
}  // namespace AR
