#include "log/logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "log/log_config.h"
#include "lumets/time_source.h"
#include "lumets_platform/debug_output.h"
#include "lumets_platform/file_descriptor.h"

namespace lumets {
namespace {

constexpr int32_t kInitialLevel = LogTrace;
constexpr uint32_t kInitialMask = LogFieldLevel | LogFieldTime;

// A record, its final "\n" and the terminator fit in this many bytes.
constexpr size_t kRecordBytes = 2048;
constexpr size_t kPathBytes = 4096;

constexpr const char* kLevelText[] = {
    "[FATAL] ", "[ERROR] ", "[WARN ] ", "[INFO ] ", "[DEBUG] ", "[TRACE] ",
};

// Console colours by level: bright red, red, dark yellow, the terminal's own
// colour, magenta, bright blue. INFO sets nothing and so needs no reset.
constexpr const char* kLevelColour[] = {
    "\x1b[91m", "\x1b[31m", "\x1b[33m", "", "\x1b[35m", "\x1b[94m",
};
constexpr char kColourReset[] = "\x1b[0m";

// Read by every Write outside any lock, written by the configuration step.
std::atomic<int32_t> g_level{kInitialLevel};
std::atomic<uint32_t> g_mask{kInitialMask};
std::atomic<bool> g_configured{false};

// Serialises the configuration step. Never held together with g_outputMutex
// except by ResetForTesting.
std::mutex g_configMutex;
// Serialises console and file writes and guards g_fileState.
std::mutex g_outputMutex;

// The executable path that ResetForTesting puts in place of /proc/self/exe.
// Written with both mutexes held, so holding either one is enough to read it.
struct ExePathOverride {
    bool active = false;
    char path[kPathBytes] = {};
};
ExePathOverride g_exeOverride;

// Scratch space of the configuration step, kept off the callers' stacks.
struct ConfigScratch {
    char exePath[kPathBytes];
    char directory[kPathBytes];
    char name[kPathBytes];
    char iniPath[kPathBytes + 16];
};
ConfigScratch g_configScratch;  // guarded by g_configMutex

struct FileState {
    bool partsKnown = false;
    char exePath[kPathBytes] = {};
    char directory[kPathBytes] = {};
    char name[kPathBytes] = {};
    // Local date for which currentFile was built; year 0 means none yet.
    int year = 0;
    int month = 0;
    int day = 0;
    // Empty when the path did not fit: the record then goes to no file.
    char currentFile[2 * kPathBytes + 32] = {};
};
FileState g_fileState;  // guarded by g_outputMutex

struct LocalTime {
    int year;
    int month;
    int day;
    int hour;
    int minute;
    int second;
    int millisecond;
};

LocalTime ReadLocalTime() {
    const int64_t wallMs = WallClockMs();
    int64_t seconds = wallMs / 1000;
    int64_t millisecond = wallMs % 1000;
    if (millisecond < 0) {
        millisecond += 1000;
        --seconds;
    }
    const time_t time = static_cast<time_t>(seconds);
    tm parts{};
    if (localtime_r(&time, &parts) == nullptr) {
        parts = tm{};
        parts.tm_mday = 1;
    }
    return LocalTime{parts.tm_year + 1900,
                     parts.tm_mon + 1,
                     parts.tm_mday,
                     parts.tm_hour,
                     parts.tm_min,
                     parts.tm_sec,
                     static_cast<int>(millisecond)};
}

// Builds a record in a caller's buffer. Every append is cut so that the
// final "\n" and the terminator always fit.
class RecordBuilder {
  public:
    explicit RecordBuilder(char (&buffer)[kRecordBytes]) : buffer_(buffer) { buffer_[0] = '\0'; }

    void Append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, format);
        AppendV(format, args);
        va_end(args);
    }

    void AppendV(const char* format, va_list args) {
        if (length_ >= kBodyLimit) {
            return;
        }
        const size_t room = kBodyLimit - length_ + 1;  // with the terminator
        const int written = std::vsnprintf(buffer_ + length_, room, format, args);
        if (written < 0) {
            // An encoding error may leave part of the output behind: drop it.
            buffer_[length_] = '\0';
            return;
        }
        // vsnprintf reports the length it wanted, not the length it wrote.
        length_ += std::min(static_cast<size_t>(written), room - 1);
    }

    // Appends the final "\n" and returns the record's length.
    size_t Finish() {
        buffer_[length_++] = '\n';
        buffer_[length_] = '\0';
        return length_;
    }

  private:
    static constexpr size_t kBodyLimit = kRecordBytes - 2;

    char* buffer_;
    size_t length_ = 0;
};

// The host executable's path; false when it is unknown or does not fit.
// The caller holds g_configMutex or g_outputMutex.
bool HostExecutablePath(char (&path)[kPathBytes]) {
    if (g_exeOverride.active) {
        std::memcpy(path, g_exeOverride.path, kPathBytes);
        return path[0] != '\0';
    }
    const ssize_t length = readlink("/proc/self/exe", path, kPathBytes);
    // A result that fills the buffer may have been cut.
    if (length <= 0 || static_cast<size_t>(length) >= kPathBytes) {
        return false;
    }
    path[length] = '\0';
    return true;
}

// Splits at the last '/'. A bare name lives in the current directory; a name
// right under the root gets an empty directory, so "%s/..." still reads "/...".
// path comes from HostExecutablePath, so each part fits.
void SplitPath(const char (&path)[kPathBytes], char (&directory)[kPathBytes],
               char (&name)[kPathBytes]) {
    const size_t length = strnlen(path, kPathBytes - 1);
    const char* slash = static_cast<const char*>(memrchr(path, '/', length));
    const char* nameStart = slash == nullptr ? path : slash + 1;
    const size_t nameLength = length - static_cast<size_t>(nameStart - path);
    std::memcpy(name, nameStart, nameLength);
    name[nameLength] = '\0';
    if (slash == nullptr) {
        std::memcpy(directory, ".", 2);
        return;
    }
    const size_t directoryLength = static_cast<size_t>(slash - path);
    std::memcpy(directory, path, directoryLength);
    directory[directoryLength] = '\0';
}

void ConfigureOnce() {
    if (g_configured.load(std::memory_order_acquire)) {
        return;
    }
    const std::lock_guard<std::mutex> lock(g_configMutex);
    if (g_configured.load(std::memory_order_relaxed)) {
        return;
    }
    ConfigScratch& scratch = g_configScratch;
    if (HostExecutablePath(scratch.exePath)) {
        SplitPath(scratch.exePath, scratch.directory, scratch.name);
        std::snprintf(scratch.iniPath, sizeof(scratch.iniPath), "%.*s/log.ini",
                      static_cast<int>(strnlen(scratch.directory, kPathBytes - 1)),
                      scratch.directory);
        std::error_code error;
        // Without the file the initial level and mask stay in force.
        if (std::filesystem::exists(scratch.iniPath, error)) {
            const LogConfig config = ReadLogConfigFile(scratch.iniPath);
            g_level.store(std::min<int32_t>(config.level, LogTrace), std::memory_order_relaxed);
            g_mask.store(config.mask, std::memory_order_relaxed);
        }
    }
    g_configured.store(true, std::memory_order_release);
}

// The caller holds g_outputMutex.
void WriteConsole(int32_t level, const char* record, size_t length) {
    std::FILE* out = stdout;
    // Asked per record: the host may redirect its standard output at any time.
    const bool colour = isatty(fileno(out)) == 1 && kLevelColour[level][0] != '\0';
    if (colour) {
        std::fputs(kLevelColour[level], out);
    }
    std::fwrite(record, 1, length, out);
    if (colour) {
        std::fputs(kColourReset, out);
    }
    std::fflush(out);
}

// The caller holds g_outputMutex.
void WriteLogFile(const LocalTime& now, const char* record, size_t length) {
    FileState& state = g_fileState;
    if (!state.partsKnown) {
        if (!HostExecutablePath(state.exePath)) {
            return;
        }
        SplitPath(state.exePath, state.directory, state.name);
        state.partsKnown = true;
    }
    if (now.year != state.year || now.month != state.month || now.day != state.day) {
        const int needed = std::snprintf(state.currentFile, sizeof(state.currentFile),
                                         "%s/log/%s_%04d%02d%02d.log", state.directory, state.name,
                                         now.year, now.month, now.day);
        if (needed < 0 || static_cast<size_t>(needed) >= sizeof(state.currentFile)) {
            state.currentFile[0] = '\0';
        }
        state.year = now.year;
        state.month = now.month;
        state.day = now.day;
    }
    if (state.currentFile[0] == '\0') {
        return;
    }
    // Opened and closed per record, so the file can be moved or deleted while
    // the host runs. A missing "log" directory means no file output, and so
    // does anything but a regular file there: opening a FIFO without a reader
    // would block every logging thread behind g_outputMutex, so the open never
    // waits, and a device or a FIFO that did open is left alone.
    const platform::CFileDescriptor file(
        open(state.currentFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
             0666));
    struct stat info {};
    if (file.Get() < 0 || fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return;
    }
    // Writes to a regular file wait for the disk as they always did.
    const int flags = fcntl(file.Get(), F_GETFL);
    if (flags < 0 || fcntl(file.Get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
        return;
    }
    size_t done = 0;
    while (done < length) {
        const ssize_t written = write(file.Get(), record + done, length - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            break;
        }
        done += static_cast<size_t>(written);
    }
}

}  // namespace

void Logger::Write(int32_t level, const char* file, int32_t line, const char* function,
                   const char* format, ...) {
    // Before log.ini has been read the level is LogTrace: nothing in range is
    // dropped here, the level check after ConfigureOnce decides.
    if (level < LogFatal || level > LogTrace || level > g_level.load(std::memory_order_relaxed)) {
        return;
    }
    const uint32_t mask = g_mask.load(std::memory_order_relaxed);
    const LocalTime now = ReadLocalTime();

    char record[kRecordBytes];
    RecordBuilder builder(record);
    if (mask & LogFieldLevel) {
        builder.Append("%s", kLevelText[level]);
    }
    if (mask & LogFieldDate) {
        builder.Append("%04d-%02d-%02d ", now.year, now.month, now.day);
    }
    if (mask & LogFieldTime) {
        builder.Append("%02d:%02d:%02d:%03d ", now.hour, now.minute, now.second, now.millisecond);
    }
    if (mask & LogFieldProcessThread) {
        builder.Append("pid=%d,tid=%d ", static_cast<int>(getpid()), static_cast<int>(gettid()));
    }
    if (mask & LogFieldFileLine) {
        builder.Append("%s[%d]|", file != nullptr ? file : "", line);
    }
    if (mask & LogFieldFunction) {
        builder.Append("%s|", function != nullptr ? function : "");
    }
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        builder.AppendV(format, args);
        va_end(args);
    }
    const size_t length = builder.Finish();

    // After the record is built, so the first record of a process carries the
    // initial fields; before it is filtered, so log.ini's level already decides
    // whether that first record is written.
    ConfigureOnce();
    if (level > g_level.load(std::memory_order_relaxed)) {
        return;
    }

    platform::DebugOutput(record);

    const std::lock_guard<std::mutex> lock(g_outputMutex);
    WriteConsole(level, record, length);
    WriteLogFile(now, record, length);
}

void Logger::ResetForTesting(const char* exePath) {
    const std::scoped_lock lock(g_configMutex, g_outputMutex);
    g_exeOverride.active = exePath != nullptr;
    g_exeOverride.path[0] = '\0';
    if (exePath != nullptr) {
        const size_t length = std::strlen(exePath);
        // A path that does not fit stays empty: no "log.ini" and no file.
        if (length < kPathBytes) {
            std::memcpy(g_exeOverride.path, exePath, length + 1);
        }
    }
    g_level.store(kInitialLevel, std::memory_order_relaxed);
    g_mask.store(kInitialMask, std::memory_order_relaxed);
    g_configured.store(false, std::memory_order_release);
    g_fileState = FileState{};
}

}  // namespace lumets
