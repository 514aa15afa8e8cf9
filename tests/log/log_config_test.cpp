#include "log/log_config.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace lumets {
namespace {

constexpr uint32_t kLevelTime = LogFieldLevel | LogFieldTime;

TEST(LogConfigTest, ReadsLevelAndMaskAsTheProfileFunctionsWould) {
    struct Case {
        std::string text;
        int32_t level;
        uint32_t mask;
    };
    const Case cases[] = {
        {"", LogInfo, kLevelTime},
        {"[OTHER]\nlevel=1\nmask=function\n", LogInfo, kLevelTime},
        {"[ log ]\n LEVEL = 4\n\tMask = fileline\n", 4, kLevelTime | LogFieldFileLine},
        {"[LOG]\nmask=Level|Time|FileLine|Function\n", LogInfo,
         kLevelTime | LogFieldFileLine | LogFieldFunction},
        {"[LOG]\nmask=xxFUNCTIONxx\n", LogInfo, kLevelTime | LogFieldFunction},
        {"[LOG]\nmask=\n", LogInfo, kLevelTime},
        {"[LOG]\nlevel=\n", LogInfo, kLevelTime},
        {"[LOG]\nlevel=9\n", 9, kLevelTime},
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
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const LogConfig config = ParseLogConfig(c.text.c_str());
        EXPECT_EQ(config.level, c.level);
        EXPECT_EQ(config.mask, c.mask);
    }
    EXPECT_EQ(ParseLogConfig(nullptr).level, LogInfo);
}

// The rest of an over-long line must not be read as a line of its own,
// wherever the parser's line buffer happens to end.
TEST(LogConfigTest, OverLongLineDoesNotLeakItsTail) {
    for (size_t padding = 100; padding < 400; ++padding) {
        const std::string text = "[LOG]\nmask=" + std::string(padding, 'x') + "level=1\n";
        ASSERT_EQ(ParseLogConfig(text.c_str()).level, LogInfo) << padding;
    }
}

}  // namespace
}  // namespace lumets
