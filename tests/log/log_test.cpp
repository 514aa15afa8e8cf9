// The log.ini reader, and the logger: the first record built with the initial
// fields, every level judged by log.ini beside the executable, one file per local day,
// cut records, whole records from many threads, colours on a terminal.
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "common/scratch_files.h"
#include "log/log_config.h"
#include "log/logger.h"
#include "lumets/time_source.h"

namespace lumets {
namespace {

namespace fs = std::filesystem;

constexpr uint32_t kLevelTime = LogFieldLevel | LogFieldTime;
// 2021-03-03 12:34:56.789 UTC, and the following midnight.
constexpr int64_t kNoonMs = 1614774896789;
constexpr int64_t kMidnightMs = 1614816000000;
const char* const kLevelText[] = {"[FATAL] ", "[ERROR] ", "[WARN ] ",
                                  "[INFO ] ", "[DEBUG] ", "[TRACE] "};

TEST(LogConfig, ReadsLevelAndMaskAsTheProfileFunctionsWould) {
    // The text, then the level and the mask read from it.
    const std::tuple<std::string, int32_t, uint32_t> cases[] = {
        {"", LogInfo, kLevelTime},
        {"[OTHER]\nlevel=1\nmask=function\n", LogInfo, kLevelTime},
        {"[ log ]\n LEVEL = 4\n\tMask = fileline\n", 4, kLevelTime | LogFieldFileLine},
        {"[LOG]\nmask=Level|Time|FileLine|Function\n", LogInfo,
         kLevelTime | LogFieldFileLine | LogFieldFunction},
        {"[LOG]\nmask=xxFUNCTIONxx\n", LogInfo, kLevelTime | LogFieldFunction},
        {"[LOG]\nlevel=\n", LogInfo, kLevelTime},
        {"[LOG]\nlevel=-2\n", -2, kLevelTime},
        {"[LOG]\nlevel=abc\n", 0, kLevelTime},
        {"[LOG]\nlevel=4abc\n", 4, kLevelTime},
        {"[LOG]\nlevel=\"2\"\nmask='function'\n", 2, kLevelTime | LogFieldFunction},
        {"[LOG]\nlevel=99999999999999999999\n", INT_MAX, kLevelTime},
        {"[LOG]\nlevel=-99999999999999999999\n", INT_MIN, kLevelTime},
        {"[LOG]\nlevel=1\nlevel=4\nmask=fileline\nmask=function\n", 1,
         kLevelTime | LogFieldFileLine},
        {"[LOG]\n;level=1\n#mask=fileline\n", LogInfo, kLevelTime},
        {"[LOG]\r\nlevel=2\r\n", 2, kLevelTime},
        {"\xEF\xBB\xBF[LOG]\nlevel=1\n", 1, kLevelTime},
        // Only the first 127 characters of the mask are searched.
        {"[LOG]\nmask=" + std::string(119, 'x') + "FILELINE\n", LogInfo,
         kLevelTime | LogFieldFileLine},
        {"[LOG]\nmask=" + std::string(120, 'x') + "FILELINE\n", LogInfo, kLevelTime},
    };
    for (const auto& [text, level, mask] : cases) {
        const LogConfig config = ParseLogConfig(text.c_str());
        EXPECT_EQ(config.level, level) << text;
        EXPECT_EQ(config.mask, mask) << text;
    }
    EXPECT_EQ(ParseLogConfig(nullptr).level, LogInfo);
    // The rest of an over-long line must not be read as a line of its own,
    // wherever the reader's line buffer happens to end.
    for (size_t padding = 100; padding < 400; ++padding) {
        const std::string text = "[LOG]\nmask=" + std::string(padding, 'x') + "level=1\n";
        ASSERT_EQ(ParseLogConfig(text.c_str()).level, LogInfo) << padding;
    }
}

// Only a regular file of at most 64 KiB is read (the FIFO and the endless
// device are among the hostile-input cases): a directory or an oversized file
// gives the defaults.
TEST(LogConfig, ReadsOnlyBoundedRegularFiles) {
    test::ScratchDir dir;
    const std::string good = dir.File("good.ini");
    const std::string big = dir.File("big.ini");
    test::WriteBytes(good, {'[', 'L', 'O', 'G', ']', '\n', 'l', 'e', 'v', 'e', 'l', '=', '2'});
    std::vector<uint8_t> padded(kMaxConfigBytes + 1, ' ');
    std::copy_n("[LOG]\nlevel=2\n", 14, padded.begin());
    test::WriteBytes(big, padded);
    EXPECT_EQ(ReadLogConfigFile(good.c_str()).level, 2);
    EXPECT_EQ(ReadLogConfigFile(big.c_str()).level, LogInfo);
    EXPECT_EQ(ReadLogConfigFile(dir.File("").c_str()).level, LogInfo);
}

class LoggerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(scratch_.Ok());
        // Left in place afterwards: only this suite runs in this process.
        setenv("TZ", "UTC", 1);
        tzset();
        SetTimeMode(TimeMode::Virtual);
        SetVirtualWallClockMs(kNoonMs);
        Restart(nullptr);
    }
    void TearDown() override {
        Logger::ResetForTesting(nullptr);
        SetTimeMode(TimeMode::Real);
    }

    // A fresh logger with an empty log folder and this log.ini (nullptr: none).
    void Restart(const char* ini) {
        fs::remove_all(dir_);
        fs::create_directories(dir_ / "log");
        if (ini != nullptr) {
            std::ofstream(dir_ / "log.ini") << ini;
        }
        Logger::ResetForTesting((dir_ / "host.bin").c_str());
    }
    std::string LogFile(const char* date = "20210303") const {
        std::ostringstream text;
        text << std::ifstream(dir_ / "log" / ("host.bin_" + std::string(date) + ".log")).rdbuf();
        return text.str();
    }

    test::ScratchDir scratch_;
    const fs::path dir_ = scratch_.Path();
};

TEST_F(LoggerTest, FirstRecordHasInitialFieldsButIniDecidesEveryLevel) {
    // log.ini, the levels written (the first record is a TRACE one), the
    // fields between the time and the message after the first record.
    const char* const cases[][3] = {
        {nullptr, "012345", ""},
        {"[LOG]\n", "0123", ""},
        {"[LOG]\nlevel=-1\n", "", ""},
        {"[log]\n  Level = 0\n  MASK = fileline|function\n", "0", "f.cpp[1]|fn|"},
        {"[LOG]\nlevel=5\nmask=fileline\n", "012345", "f.cpp[1]|"},
    };
    for (const auto& [ini, written, fields] : cases) {
        SCOPED_TRACE(ini != nullptr ? ini : "no log.ini");
        Restart(ini);
        testing::internal::CaptureStdout();
        Logger::Write(LogTrace, "f.cpp", 1, "fn", "first");
        for (int32_t level = -1; level <= 6; ++level) {
            Logger::Write(level, "f.cpp", 1, "fn", "L%d", level);
        }
        const std::string console = testing::internal::GetCapturedStdout();
        std::string expected =
            std::strchr(written, '5') != nullptr ? "[TRACE] 12:34:56:789 first\n" : "";
        for (const char* level = written; *level != '\0'; ++level) {
            expected += kLevelText[*level - '0'] + std::string("12:34:56:789 ") + fields + "L" +
                        *level + "\n";
        }
        EXPECT_EQ(LogFile(), expected);
        EXPECT_EQ(console, expected);  // not a terminal: no colour sequences
    }
}

TEST_F(LoggerTest, FilesFollowTheLocalDayAndRecordsAreCutToFit) {
    Restart("[LOG]\nmask=fileline\n");
    const std::string longText(5000, 'a');
    testing::internal::CaptureStdout();
    SetVirtualWallClockMs(kMidnightMs - 100);
    Logger::Write(LogInfo, "f", 1, "fn", "%s", longText.c_str());
    Logger::Write(LogInfo, longText.c_str(), 7, "fn", "lost");
    AdvanceBy(200);  // the wall clock moves with virtual time
    Logger::Write(LogInfo, "f.cpp", 8, "fn", "after");
    // Eight hours east of UTC, 20:00 UTC on the 3rd is already the 4th.
    setenv("TZ", "UTC-8", 1);
    tzset();
    SetVirtualWallClockMs(kMidnightMs - int64_t{4} * 3600 * 1000);
    Logger::Write(LogInfo, "f.cpp", 9, "fn", "east");
    testing::internal::GetCapturedStdout();
    // A cut record is 2047 bytes with its "\n", leaving room for the terminator.
    const std::string prefix = "[INFO ] 23:59:59:900 ";
    const std::string cut = prefix + std::string(2046 - prefix.size(), 'a') + "\n";
    EXPECT_EQ(LogFile(), cut + cut);
    EXPECT_EQ(LogFile("20210304"),
              "[INFO ] 00:00:00:100 f.cpp[8]|after\n[INFO ] 04:00:00:000 f.cpp[9]|east\n");

    // Without the folder only the console gets records. Real time this once:
    // only the shape of the time is known.
    fs::remove_all(dir_ / "log");
    SetTimeMode(TimeMode::Real);
    testing::internal::CaptureStdout();
    Logger::Write(LogWarn, "f.cpp", 0, "fn", "no file");
    std::string console = testing::internal::GetCapturedStdout();
    std::replace_if(
        console.begin(), console.end(), [](char c) { return c > '0' && c <= '9'; }, '0');
    EXPECT_EQ(console, "[WARN ] 00:00:00:000 f.cpp[0]|no file\n");
    EXPECT_FALSE(fs::exists(dir_ / "log"));
}

TEST_F(LoggerTest, ConcurrentRecordsStayWhole) {
    // A long log.ini keeps the first thread reading it while the others come in.
    Restart(("[LOG]\nlevel=3\n;" + std::string(1 << 20, 'x')).c_str());
    constexpr int kThreads = 8;
    constexpr int kRecords = 100;
    const std::string padding(300, 'p');
    std::vector<std::thread> threads;
    testing::internal::CaptureStdout();
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &padding] {
            for (int r = 0; r < kRecords; ++r) {
                Logger::Write(LogInfo, "f", 1, "fn", "t%d r%d %s", t, r, padding.c_str());
            }
        });
    }
    std::multiset<std::string> expected;
    for (int i = 0; i < kThreads * kRecords; ++i) {
        expected.insert("[INFO ] 12:34:56:789 t" + std::to_string(i / kRecords) + " r" +
                        std::to_string(i % kRecords) + " " + padding);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const std::string& text : {LogFile(), testing::internal::GetCapturedStdout()}) {
        std::istringstream in(text);
        std::multiset<std::string> lines;
        for (std::string line; std::getline(in, line);) {
            lines.insert(line);
        }
        EXPECT_TRUE(lines == expected);  // whole, each exactly once
    }
}

}  // namespace
}  // namespace lumets
