#include "log/logger.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lumets/time_source.h"

namespace lumets {
namespace {

namespace fs = std::filesystem;

// 2021-03-03 12:34:56.789 UTC, and the following midnight.
constexpr int64_t kNoonMs = 1614774896789;
constexpr int64_t kMidnightMs = 1614816000000;
const char* const kLevelText[] = {"[FATAL] ", "[ERROR] ", "[WARN ] ",
                                  "[INFO ] ", "[DEBUG] ", "[TRACE] "};

void SetTimeZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

std::string Slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs body with standard output pointed at fd.
template <typename Body>
void WithStdout(int fd, Body body) {
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(fd, STDOUT_FILENO);
    body();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
}

class LoggerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/lumets_log_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        fs::create_directory(dir_ / "log");
        exe_ = (dir_ / "host.bin").string();
        // Left in place afterwards: only this suite runs in this process.
        SetTimeZone("UTC");
        SetTimeMode(TimeMode::Virtual);
        SetVirtualWallClockMs(kNoonMs);
        Logger::ResetForTesting(exe_.c_str());
    }

    void TearDown() override {
        Logger::ResetForTesting(nullptr);
        SetTimeMode(TimeMode::Real);
        fs::remove_all(dir_);
    }

    void WriteIni(const std::string& text) { std::ofstream(dir_ / "log.ini") << text; }
    fs::path LogFile(const char* date) const {
        return dir_ / "log" / ("host.bin_" + std::string(date) + ".log");
    }

    // Runs body with standard output going to a file; returns what it printed.
    template <typename Body>
    std::string CaptureConsole(Body body) {
        const fs::path path = dir_ / "console.txt";
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        WithStdout(fd, body);
        close(fd);
        return Slurp(path);
    }

    fs::path dir_;
    std::string exe_;
};

TEST_F(LoggerTest, FirstRecordUsesInitialSettingsThenIniDecidesTheFields) {
    WriteIni("[log]\n  Level = 0\n  MASK = fileline|function\n");
    const std::string console = CaptureConsole([] {
        Logger::Write(LogTrace, "player.cpp", 12, "Play", "first %d", 1);
        Logger::Write(LogTrace, "player.cpp", 13, "Play", "dropped");
        SetVirtualWallClockMs(kNoonMs + 1);
        Logger::Write(LogFatal, "player.cpp", 34, "Queue::Next", "next=%d", 2);
    });
    const std::string expected =
        "[TRACE] 12:34:56:789 first 1\n"
        "[FATAL] 12:34:56:790 player.cpp[34]|Queue::Next|next=2\n";
    EXPECT_EQ(Slurp(LogFile("20210303")), expected);
    EXPECT_EQ(console, expected);  // not a terminal: no colour sequences
}

TEST_F(LoggerTest, ConfigurationDecidesWhichLevelsAreWritten) {
    struct Case {
        const char* ini;      // nullptr: no log.ini
        const char* written;  // the levels written after the first record
    };
    const Case cases[] = {
        {nullptr, "012345"},           {"[LOG]\n", "0123"},
        {"[LOG]\nlevel=4\n", "01234"}, {"[LOG]\nlevel=9\n", "012345"},
        {"[LOG]\nlevel=-1\n", ""},     {"[LOG]\nlevel=x\n", "0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ini != nullptr ? c.ini : "no log.ini");
        fs::remove(dir_ / "log.ini");
        fs::remove(LogFile("20210303"));
        if (c.ini != nullptr) {
            WriteIni(c.ini);
        }
        Logger::ResetForTesting(exe_.c_str());
        CaptureConsole([] {
            Logger::Write(LogTrace, "f", 1, "fn", "first");
            for (int32_t level = -1; level <= 6; ++level) {
                Logger::Write(level, "f", 1, "fn", "L%d", level);
            }
        });
        std::string expected = "[TRACE] 12:34:56:789 first\n";
        for (const char* level = c.written; *level != '\0'; ++level) {
            expected += kLevelText[*level - '0'] + std::string("12:34:56:789 L") + *level + "\n";
        }
        EXPECT_EQ(Slurp(LogFile("20210303")), expected);
    }
}

TEST_F(LoggerTest, FileRollsOverAtLocalMidnight) {
    CaptureConsole([] {
        SetVirtualWallClockMs(kMidnightMs - 100);
        Logger::Write(LogInfo, "f", 1, "fn", "before");
        SetVirtualWallClockMs(kMidnightMs + 100);
        Logger::Write(LogInfo, "f", 1, "fn", "after");
        // Eight hours east of UTC, 20:00 UTC on the 3rd is already the 4th.
        SetTimeZone("UTC-8");
        SetVirtualWallClockMs(kMidnightMs - int64_t{4} * 3600 * 1000);
        Logger::Write(LogInfo, "f", 1, "fn", "east");
    });
    EXPECT_EQ(Slurp(LogFile("20210303")), "[INFO ] 23:59:59:900 before\n");
    EXPECT_EQ(Slurp(LogFile("20210304")),
              "[INFO ] 00:00:00:100 after\n[INFO ] 04:00:00:000 east\n");
}

TEST_F(LoggerTest, LongRecordsAreCutToFit) {
    WriteIni("[LOG]\nlevel=5\nmask=fileline\n");
    const std::string longText(5000, 'a');
    CaptureConsole([&] {
        Logger::Write(LogInfo, "f", 1, "fn", "%s", longText.c_str());
        Logger::Write(LogInfo, longText.c_str(), 7, "fn", "lost");
        Logger::Write(LogInfo, "f.cpp", 8, "fn", "after");
    });
    // Each cut record is 2047 bytes with its "\n", leaving room for the terminator.
    const std::string prefix = "[INFO ] 12:34:56:789 ";
    const std::string cut = prefix + std::string(2046 - prefix.size(), 'a') + "\n";
    EXPECT_EQ(Slurp(LogFile("20210303")), cut + cut + prefix + "f.cpp[8]|after\n");
}

TEST_F(LoggerTest, MissingLogDirectoryOnlySkipsTheFile) {
    fs::remove(dir_ / "log");
    SetTimeMode(TimeMode::Real);
    const std::string console = CaptureConsole([] { LUMETS_LOG(LogWarn, "no file %d", 1); });
    // The real clock: only the shape of the time field is known.
    const std::string shape = "[WARN ] 00:00:00:000 no file 1\n";
    ASSERT_EQ(console.size(), shape.size()) << console;
    for (size_t i = 0; i < shape.size(); ++i) {
        EXPECT_TRUE(shape[i] == '0' ? std::isdigit(static_cast<unsigned char>(console[i])) != 0
                                    : console[i] == shape[i])
            << console;
    }
    EXPECT_FALSE(fs::exists(dir_ / "log"));
}

TEST_F(LoggerTest, ConcurrentRecordsStayWhole) {
    WriteIni("[LOG]\nlevel=3\n");
    constexpr int kThreads = 8;
    constexpr int kRecords = 100;
    const std::string padding(300, 'p');
    const std::string console = CaptureConsole([&] {
        std::vector<std::thread> threads;
        threads.reserve(kThreads);
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t, &padding] {
                for (int r = 0; r < kRecords; ++r) {
                    Logger::Write(LogInfo, "f", 1, "fn", "t%d r%d %s", t, r, padding.c_str());
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
    std::vector<std::string> expected;
    for (int t = 0; t < kThreads; ++t) {
        for (int r = 0; r < kRecords; ++r) {
            expected.push_back("[INFO ] 12:34:56:789 t" + std::to_string(t) + " r" +
                               std::to_string(r) + " " + padding);
        }
    }
    std::sort(expected.begin(), expected.end());
    for (const std::string& text : {Slurp(LogFile("20210303")), console}) {
        std::vector<std::string> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        std::sort(lines.begin(), lines.end());
        EXPECT_TRUE(lines == expected);  // whole, each exactly once
        EXPECT_TRUE(!text.empty() && text.back() == '\n');
    }
}

TEST_F(LoggerTest, TerminalGetsColoursByLevel) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    char name[128];
    ASSERT_EQ(ptsname_r(master, name, sizeof(name)), 0);
    const int terminal = open(name, O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal, 0);
    termios mode{};
    tcgetattr(terminal, &mode);
    cfmakeraw(&mode);  // no "\n" to "\r\n" translation
    tcsetattr(terminal, TCSANOW, &mode);
    WithStdout(terminal, [] {
        for (int32_t level = LogFatal; level <= LogTrace; ++level) {
            Logger::Write(level, "f", 1, "fn", "m");
        }
    });
    const char* const colours[] = {"\x1b[91m", "\x1b[31m", "\x1b[33m", "", "\x1b[35m", "\x1b[94m"};
    std::string expected;
    for (int level = LogFatal; level <= LogTrace; ++level) {
        const std::string record = kLevelText[level] + std::string("12:34:56:789 m\n");
        expected += *colours[level] ? colours[level] + record + "\x1b[0m" : record;
    }
    std::string got;
    pollfd ready{master, POLLIN, 0};
    while (got.size() < expected.size() && poll(&ready, 1, 2000) > 0) {
        char chunk[512];
        const ssize_t n = read(master, chunk, sizeof(chunk));
        if (n <= 0) {
            break;
        }
        got.append(chunk, static_cast<size_t>(n));
    }
    close(terminal);
    close(master);
    EXPECT_EQ(got, expected);
}

}  // namespace
}  // namespace lumets
