// The scene reader against its table of limits, and the table, the schema
// and the fuzz corpus against each other.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <tuple>

#include "scene_file.h"
#include "scene_limits.h"

namespace lumets::playback {
namespace {

using namespace limits;

// The reader's message, or "" when it takes the text. Media paths are joined
// to no folder, and every media file serves but "missing".
std::string Refusal(const std::string& text, bool action = false) {
    const MediaCheck check = [](const std::string& path, MediaUse) {
        return path == "missing" ? WhyNotAFile(path) : "";
    };
    try {
        action ? (void)ParseAction(text, "s.json", "", check)
               : (void)ParseScene(text, "s.json", "", check);
        return "";
    } catch (const SceneError& error) {
        return error.what();
    }
}

// Each limit at both bounds reads; one past each (the next double for a
// number) is refused where "@" marks. "%" stands for the number, or for n
// times what follows "|": entries of a list, units of a string.
TEST(SceneFile, TakesEachLimitAtItsBoundsAndRefusesOnePast) {
    const std::string sub = R"({"subtitles": [{"id": "a", )";
    const std::string item = sub + R"("items": [{"text": {)";
    const std::pair<const SceneLimit&, std::string> cases[] = {
        {kFrameSide, R"({"size": @[64, %]})"},
        {kFps, R"({"fps": @%})"},
        {kDuration, R"({"duration": @%})"},
        {kSubtitles, R"({"subtitles": @[%]}|{"id": "a", "items": [{"text": {}}]})"},
        {kActions, R"({"actions": @[%]}|{"do": "removeAll"})"},
        {kItems, sub + R"("items": @[%]}]}|{"text": {}})"},
        {kId, R"({"subtitles": [{"id": @"%", "items": [{"text": {}}]}]}|é)"},
        {kContent, item + R"("content": @"%"}}]}]}|é)"},
        {kMediaPath, R"({"background": {"image": @"%"}}|é)"},
        {kMediaPathUnits, R"({"background": {"image": @"%"}}|é)"},
        {kCoordinate, sub + R"("at": @[0, %], "items": [{"text": {}}]}]})"},
        {kSpeed, item + R"("speed": @%}}]}]})"},
        {kFontSize, item + R"("style": {"fontSize": @%}}}]}]})"},
        {kAlign, item + R"("style": {"verticalAlign": @%}}}]}]})"},
        {kPercent, item + R"(}, "plate": {"opacity": @%}}]}]})"},
        {kFillAngle, item + R"("style": {"fillAngle": @%}}}]}]})"},
        {kOutlineWidth, item + R"("style": {"outlineWidth": @%}}}]}]})"},
        {kPlays, item + R"(}, "plays": @%}]}]})"},
        {kInterval, sub + R"("interval": @%, "items": [{"text": {}}]}]})"},
        {kScale, R"({"banners": {"ombrel": {"caps": "c", "middle": "m", "scale": @%}}})"},
        {kActionTime, R"({"actions": [{"at": @%, "do": "removeAll"}]})"},
        {kKeep, R"({"actions": [{"do": "trim", "keep": @%}]})"},
    };
    std::set<std::string> tested = {kSubtitlesAtOnce.name, kDepth.name, kSceneBytes.name};
    for (const auto& [limit, scene] : cases) {
        tested.insert(limit.name);
        const size_t at = scene.find('@');
        const size_t bar = std::min(scene.find('|'), scene.size());
        const auto with = [&](double n) {
            char value[32] = {};
            std::to_chars(value, value + 31, n, std::chars_format::general, 17);
            std::string text = limit.kind >= Count ? "" : value;
            for (int i = 0; limit.kind >= Count && i < n; ++i) {
                text += (i > 0 && limit.kind == Count ? "," : "") + scene.substr(bar + 1);
            }
            return scene.substr(0, bar).erase(at, 1).replace(scene.find('%') - 1, 1, text);
        };
        for (const double bound : {limit.min, limit.max}) {
            const double away = bound == limit.min ? -1 : 1;
            const double past =
                limit.kind == Number ? std::nextafter(bound, away * kUnbounded) : bound + away;
            EXPECT_TRUE(std::isinf(bound) || Refusal(with(bound)).empty()) << limit.name << bound;
            EXPECT_TRUE(std::isinf(bound) || (past < 0 && limit.kind > Number) ||
                        Refusal(with(past)).starts_with("s.json:1:" + std::to_string(at + 1)))
                << limit.name << past;
        }
    }
    for (const SceneLimit& limit : SceneLimits()) {
        EXPECT_EQ(tested.count(limit.name), 1u) << limit.name;
    }
}

TEST(SceneFile, RefusesBadFieldsWhereTheyAre) {
    // Counted in time order: a remove at 0.5 makes room for the add at 1.
    std::string adds = R"({"actions": [{"at": 1, "do": "add", "subtitle": {"id": "new", )";
    for (int i = 0; i < kSubtitlesAtOnce.max; ++i) {
        adds += R"("items": [{"text": {}}]}}, {"do": "add", "subtitle": {"id": ")" +
                std::to_string(i) + "\", ";
    }
    adds += R"("items": [{"text": {}}]}})";
    const std::tuple<std::string, std::string, bool> cases[] = {
        {adds + "]}", "s.json:1:14: \"actions[0]\" could make 257 subtitles play at once", 0},
        {adds + R"(, {"at": 0.5, "do": "remove", "id": "7"}]})", "", 0},
        {std::string(33, '['), "s.json:1:33: nested more than 32 levels deep", 0},
        {"{}" + std::string((16 << 20) - 2, ' '), "", 0},
        {"{}" + std::string((16 << 20) - 1, ' '), "s.json: larger than 16 MiB", 0},
        {"{\n  \"fps\": 30,\n  \"size\": [320 180]\n}", "s.json:3:18: syntax error", 0},
        {R"({"fps": "fast"})", "s.json:1:9: \"fps\" must be a number", 0},
        {R"({"background": "r\"e\\"})", "s.json:1:16: \"background\" must be a colour", 0},
        {R"({"subtitles": [{"id": "a", "items": [{"plays": 1.0}]}]})",
         "s.json:1:48: \"subtitles[0].items[0].plays\" must be a whole number", 0},
        {R"({"colour": 1})", "s.json:1:2: unknown field \"colour\" in the scene", 0},
        {R"({"actions": [{"do": "remove", "keep": 1}]})", "s.json:1:31: unknown field \"keep\"", 0},
        {R"({"at": 1, "do": "removeAll"})", "s.json:1:2: \"at\" has no meaning", 1},
        {R"({"do": "add", "subtitle": {"id": "a", "items": [{"movie": {"path": "missing"}}]}})",
         "s.json:1:68: media file missing: not found", 1},
    };
    for (const auto& [text, message, action] : cases) {
        EXPECT_EQ(Refusal(text, action).substr(0, std::max<size_t>(message.size(), 1)), message);
    }
    const Action trim = ParseAction(R"({"do": "trim", "group": "g", "keep": 3})", "a", "", {});
    EXPECT_TRUE(trim.kind == Action::Kind::Trim && trim.group == u"g" && trim.keep == 3);
}

// Every limit a schema can state, the schema states at the same place with
// the same numbers.
TEST(SceneLimits, TheSchemaStatesEachLimitItCan) {
    using nlohmann::json;
    const json schema = json::parse(std::ifstream(LUMETS_SOURCE_DIR "/docs/scene.schema.json"));
    for (const SceneLimit& limit : SceneLimits()) {
        if (limit.schema != nullptr) {
            const json& node = schema.at(json::json_pointer(limit.schema));
            const std::string lo = limit.kind == Count    ? "minItems"
                                   : limit.kind == Length ? "minLength"
                                                          : "minimum";
            EXPECT_EQ(node.value(lo, limit.kind <= Number ? -kUnbounded : 0.0), limit.min) << lo;
            EXPECT_EQ(node.value("max" + lo.substr(3), kUnbounded), limit.max) << limit.schema;
            EXPECT_EQ(node.value("type", "") == "number", limit.kind == Number) << limit.schema;
            EXPECT_FALSE(node.contains("exclusiveMinimum") || node.contains("exclusiveMaximum"));
        }
    }
}

// The schema and the reader say yes to the same corpus files, but for these.
// Differences no corpus file shows: the reader counts a string's UTF-16
// units, the schema its characters; a media path is bounded once joined to
// the scene's folder; media files are not looked at here.
TEST(SceneLimits, TheSchemaAndTheReaderAgreeOnTheCorpus) {
    const std::set<std::string> exceptions = {
        "at-once.json",         // the schema cannot follow the subtitles the actions keep alive
        "whole-fraction.json",  // the schema takes 64.0 for an integer; the reader wants 64
    };
    // Exits with 0 when the schema takes the file; NaN and Infinity are no JSON.
    const std::string validate =
        "cd " LUMETS_SOURCE_DIR R"( && python3 -c 'import json, sys, jsonschema
sys.exit(not jsonschema.Draft202012Validator(json.load(open("docs/scene.schema.json"))).is_valid(
    json.loads(open(sys.argv[1], "rb").read(), parse_constant=int)))' 2>/dev/null )";
    for (const auto& file :
         std::filesystem::directory_iterator(LUMETS_SOURCE_DIR "/fuzz/corpus_scene")) {
        std::ifstream in(file.path());
        const bool reads = Refusal({std::istreambuf_iterator<char>(in), {}}).empty();
        const bool valid = std::system((validate + file.path().string()).c_str()) == 0;
        EXPECT_NE(reads == valid, exceptions.count(file.path().filename()) == 1) << file.path();
    }
}

}  // namespace
}  // namespace lumets::playback
