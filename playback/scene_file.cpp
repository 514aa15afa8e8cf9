#include "scene_file.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <string_view>

#include "lumets_platform/file.h"
#include "lumets_platform/utf16.h"
#include "paths.h"
#include "scene_limits.h"

namespace lumets::playback {
namespace {

using nlohmann::json;
using namespace limits;

std::string Whole(double value) {
    return std::to_string(static_cast<int64_t>(value));
}

// 65535 as "65,535".
std::string Grouped(double value) {
    std::string digits = Whole(value);
    for (size_t at = digits.size(); at > 3; at -= 3) {
        digits.insert(at - 3, ",");
    }
    return digits;
}

// Reads the text through this iterator so that each parse event knows how
// far the parser has read: where in the file each value ends.
class CountingIterator {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountingIterator(const char* at, const char* begin, size_t* read)
        : m_at(at), m_begin(begin), m_read(read) {}
    reference operator*() const { return *m_at; }
    CountingIterator& operator++() {
        ++m_at;
        *m_read = static_cast<size_t>(m_at - m_begin);
        return *this;
    }
    bool operator==(const CountingIterator& other) const { return m_at == other.m_at; }
    bool operator!=(const CountingIterator& other) const { return m_at != other.m_at; }

  private:
    const char* m_at;
    const char* m_begin;
    size_t* m_read;
};

constexpr auto kMaxSceneBytes = static_cast<size_t>(kSceneBytes.max);

struct SceneTooDeep {};

// Builds the document as the library's own parser does, and notes where each
// value and key starts, by JSON pointer ("/subtitles/0/id"; keys as "#key").
class LocatingParser : public nlohmann::detail::json_sax_dom_parser<json> {
    using Base = nlohmann::detail::json_sax_dom_parser<json>;

  public:
    LocatingParser(json& root, const std::string& text, const size_t* read)
        : Base(root, true), m_text(text), m_read(read) {}

    bool null() { return Note(*m_read - 4), Base::null(); }
    bool boolean(bool value) { return Note(*m_read - (value ? 4 : 5)), Base::boolean(value); }
    bool number_integer(json::number_integer_t value) {
        return Note(NumberStart()), Base::number_integer(value);
    }
    bool number_unsigned(json::number_unsigned_t value) {
        return Note(NumberStart()), Base::number_unsigned(value);
    }
    bool number_float(json::number_float_t value, const json::string_t& text) {
        return Note(NumberStart()), Base::number_float(value, text);
    }
    bool string(json::string_t& value) { return Note(StringStart()), Base::string(value); }
    bool start_object(std::size_t size) {
        Enter(false);
        return Base::start_object(size);
    }
    bool key(json::string_t& name) {
        m_frames.back().key = name;
        m_offsets[Path() + "#"] = StringStart();
        return Base::key(name);
    }
    bool end_object() {
        m_frames.pop_back();
        Ended();
        return Base::end_object();
    }
    bool start_array(std::size_t size) {
        Enter(true);
        return Base::start_array(size);
    }
    bool end_array() {
        m_frames.pop_back();
        Ended();
        return Base::end_array();
    }

    // Where the number just read starts: the parser has read one character
    // past it, unless the text ends with it.
    size_t NumberStart() const {
        const auto inNumber = [&](size_t at) {
            return std::string_view("0123456789+-.eE").find(m_text[at]) != std::string_view::npos;
        };
        size_t at = *m_read;
        at -= at > 0 && !inNumber(at - 1) ? 1 : 0;
        while (at > 0 && inNumber(at - 1)) {
            --at;
        }
        return at;
    }
    // Where the value (or, with a trailing "#", the key) at path starts.
    size_t OffsetOf(const std::string& path) const {
        const auto found = m_offsets.find(path);
        return found == m_offsets.end() ? 0 : found->second;
    }

  private:
    struct Frame {
        bool array;
        size_t index;
        std::string key;
    };

    // No scene nests deeper than a few levels; a file that does is refused
    // before the work per value, which grows with the depth, adds up.
    void Enter(bool array) {
        Note(*m_read - 1, true);
        if (m_frames.size() >= kDepth.max) {
            throw SceneTooDeep();
        }
        m_frames.push_back(Frame{array, 0, {}});
    }

    std::string Path() const {
        std::string path;
        for (const Frame& frame : m_frames) {
            path += "/" + (frame.array ? std::to_string(frame.index) : frame.key);
        }
        return path;
    }
    // The opening quote of the string just read: the last quote before its
    // closing one that no backslash escapes.
    size_t StringStart() const {
        size_t at = *m_read - 1;
        size_t slashes = 1;
        while (slashes % 2 == 1) {
            at = m_text.rfind('"', at - 1);
            slashes = 0;
            while (slashes < at && m_text[at - 1 - slashes] == '\\') {
                ++slashes;
            }
        }
        return at;
    }
    // A value that starts at offset. Scalars end here, containers at their
    // end event.
    void Note(size_t offset, bool container = false) {
        m_offsets[Path()] = offset;
        if (!container) {
            Ended();
        }
    }
    void Ended() {
        if (!m_frames.empty() && m_frames.back().array) {
            ++m_frames.back().index;
        }
    }

    const std::string& m_text;
    const size_t* m_read;
    std::vector<Frame> m_frames;
    std::map<std::string, size_t> m_offsets;
};

// One JSON object being read: each field is taken once, by name, and what
// is left at the end is an unknown field.
class Reader;

class Object {
  public:
    Object(const Reader& reader, const json& value, std::string path);
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    bool Has(const char* name) const { return m_value.contains(name); }
    const json* Take(const char* name, std::string* path);

    int32_t Int(const char* name, int32_t fallback, const SceneLimit& limit);
    double Number(const char* name, double fallback, const SceneLimit& limit);
    bool Bool(const char* name, bool fallback);
    std::string String(const char* name, const std::string& fallback);
    std::u16string Text(const char* name);
    uint32_t Colour(const char* name, uint32_t fallback);
    std::string Media(const char* name, MediaUse use);
    POINT Point(const char* name, POINT fallback);
    RECT Rect(const char* name, RECT fallback);
    void Done();

    [[noreturn]] void Fail(const std::string& path, const std::string& what) const;

  private:
    const Reader& m_reader;
    const json& m_value;
    std::string m_path;
    std::set<std::string> m_taken;
};

class Reader {
  public:
    Reader(std::string name, std::string text, std::string baseDir, const LocatingParser& parser,
           const MediaCheck& check)
        : m_name(std::move(name)),
          m_text(std::move(text)),
          m_baseDir(std::move(baseDir)),
          m_parser(parser),
          m_check(check) {}

    [[noreturn]] void Fail(const std::string& path, const std::string& what) const {
        throw SceneError(Where(m_parser.OffsetOf(path)) + ": " + what);
    }
    std::string Where(size_t offset) const {
        offset = std::min(offset, m_text.size());
        const auto lineStart = m_text.rfind('\n', offset == 0 ? 0 : offset - 1);
        const size_t line =
            static_cast<size_t>(std::count(m_text.begin(), m_text.begin() + offset, '\n')) + 1;
        const size_t column =
            offset - (lineStart == std::string::npos || offset == 0 ? 0 : lineStart + 1) + 1;
        return m_name + ":" + std::to_string(line) + ":" + std::to_string(column);
    }
    std::string MediaPath(const std::string& relative) const {
        const std::filesystem::path path(relative);
        return path.is_absolute() ? relative : (std::filesystem::path(m_baseDir) / path).string();
    }
    // Why the file cannot serve as use; each file is decoded once, however
    // many layers name it.
    const std::string& WhyNotUsable(const std::string& file, MediaUse use) const {
        const auto key = std::make_pair(file, use);
        const auto found = m_checked.find(key);
        if (found != m_checked.end()) {
            return found->second;
        }
        return m_checked.emplace(key, m_check ? m_check(file, use) : WhyNotAFile(file))
            .first->second;
    }

  private:
    std::string m_name;
    std::string m_text;
    std::string m_baseDir;
    const LocatingParser& m_parser;
    const MediaCheck& m_check;
    mutable std::map<std::pair<std::string, MediaUse>, std::string> m_checked;
};

// Huge unsigned numbers read back negative, and are out of range either way.
bool InCoordinateRange(int64_t value) {
    return kCoordinate.Admits(static_cast<double>(value));
}

// The name of a field as a message shows it: "subtitles[0].items[1].text".
std::string Dotted(const std::string& path) {
    std::string out;
    size_t at = 1;
    while (at <= path.size() && !path.empty()) {
        const size_t next = std::min(path.find('/', at), path.size());
        const std::string part = path.substr(at, next - at);
        const bool index =
            !part.empty() && std::all_of(part.begin(), part.end(),
                                         [](unsigned char c) { return std::isdigit(c) != 0; });
        out += index ? "[" + part + "]" : (out.empty() ? "" : ".") + part;
        at = next + 1;
    }
    return out.empty() ? "the scene" : "\"" + out + "\"";
}

Object::Object(const Reader& reader, const json& value, std::string path)
    : m_reader(reader), m_value(value), m_path(std::move(path)) {
    if (!value.is_object()) {
        Fail(m_path, Dotted(m_path) + " must be an object");
    }
}

void Object::Fail(const std::string& path, const std::string& what) const {
    m_reader.Fail(path, what);
}

const json* Object::Take(const char* name, std::string* path) {
    m_taken.insert(name);
    *path = m_path + "/" + name;
    const auto found = m_value.find(name);
    return found == m_value.end() ? nullptr : &*found;
}

void Object::Done() {
    for (const auto& [key, value] : m_value.items()) {
        if (m_taken.count(key) == 0) {
            m_reader.Fail(m_path + "/" + key + "#",
                          "unknown field \"" + key + "\" in " + Dotted(m_path));
        }
    }
}

int32_t Object::Int(const char* name, int32_t fallback, const SceneLimit& limit) {
    std::string path;
    const json* value = Take(name, &path);
    if (value == nullptr) {
        return fallback;
    }
    if (!value->is_number_integer()) {
        Fail(path, Dotted(path) + " must be a whole number");
    }
    const int64_t number = value->is_number_unsigned()
                               ? static_cast<int64_t>(std::min<uint64_t>(
                                     value->get<uint64_t>(), std::numeric_limits<int64_t>::max()))
                               : value->get<int64_t>();
    if (!limit.Admits(static_cast<double>(number))) {
        Fail(path,
             Dotted(path) + " must be between " + Whole(limit.min) + " and " + Whole(limit.max));
    }
    return static_cast<int32_t>(number);
}

double Object::Number(const char* name, double fallback, const SceneLimit& limit) {
    std::string path;
    const json* value = Take(name, &path);
    if (value == nullptr) {
        return fallback;
    }
    if (!value->is_number()) {
        Fail(path, Dotted(path) + " must be a number");
    }
    const double number = value->get<double>();
    if (!limit.Admits(number)) {
        std::ostringstream range;
        range << " must be between " << limit.min << " and " << limit.max;
        Fail(path, Dotted(path) + range.str());
    }
    return number;
}

bool Object::Bool(const char* name, bool fallback) {
    std::string path;
    const json* value = Take(name, &path);
    if (value == nullptr) {
        return fallback;
    }
    if (!value->is_boolean()) {
        Fail(path, Dotted(path) + " must be true or false");
    }
    return value->get<bool>();
}

std::string Object::String(const char* name, const std::string& fallback) {
    std::string path;
    const json* value = Take(name, &path);
    if (value == nullptr) {
        return fallback;
    }
    if (!value->is_string()) {
        Fail(path, Dotted(path) + " must be a string");
    }
    return value->get<std::string>();
}

std::u16string Object::Text(const char* name) {
    return platform::Utf8ToU16(String(name, ""));
}

uint32_t Object::Colour(const char* name, uint32_t fallback) {
    std::string path;
    const json* value = Take(name, &path);
    uint32_t colour = fallback;
    if (value != nullptr &&
        (!value->is_string() || !ParseColour(value->get<std::string>(), &colour))) {
        Fail(path, Dotted(path) + " must be a colour \"#RRGGBB\"");
    }
    return colour;
}

std::string Object::Media(const char* name, MediaUse use) {
    std::string path;
    const json* value = Take(name, &path);
    if (value == nullptr) {
        Fail(m_path, Dotted(m_path) + " needs \"" + name + "\"");
    }
    if (!value->is_string() ||
        !kMediaPath.Admits(platform::Utf8ToU16(value->get<std::string>()).size())) {
        Fail(path, Dotted(path) + " must be a file path");
    }
    const std::string file = m_reader.MediaPath(value->get<std::string>());
    if (!kMediaPathUnits.Admits(platform::Utf8ToU16(file).size())) {
        Fail(path, "media path longer than " + Whole(kMediaPathUnits.max) + " characters: " + file);
    }
    const std::string& why = m_reader.WhyNotUsable(file, use);
    if (!why.empty()) {
        Fail(path, "media file " + file + ": " + why);
    }
    return file;
}

POINT Object::Point(const char* name, POINT fallback) {
    std::string path;
    const json* value = Take(name, &path);
    if (value == nullptr) {
        return fallback;
    }
    if (!value->is_array() || value->size() != 2 || !(*value)[0].is_number_integer() ||
        !(*value)[1].is_number_integer()) {
        Fail(path, Dotted(path) + " must be [x, y] in whole pixels");
    }
    const int64_t x = (*value)[0].get<int64_t>();
    const int64_t y = (*value)[1].get<int64_t>();
    if (!InCoordinateRange(x) || !InCoordinateRange(y)) {
        Fail(path, Dotted(path) + " is out of range");
    }
    return POINT{static_cast<int32_t>(x), static_cast<int32_t>(y)};
}

RECT Object::Rect(const char* name, RECT fallback) {
    std::string path;
    const json* value = Take(name, &path);
    if (value == nullptr) {
        return fallback;
    }
    bool ok = value->is_array() && value->size() == 4;
    for (size_t i = 0; ok && i < 4; ++i) {
        ok = (*value)[i].is_number_integer() && InCoordinateRange((*value)[i].get<int64_t>());
    }
    if (!ok) {
        Fail(path, Dotted(path) + " must be [left, top, right, bottom] in whole pixels");
    }
    const auto at = [&](size_t i) { return static_cast<int32_t>((*value)[i].get<int64_t>()); };
    return RECT{at(0), at(1), at(2), at(3)};
}

// A list of at most limit.max entries at path, or a located error.
const json& List(Object& o, const json& value, const std::string& path, const char* what,
                 const SceneLimit& limit) {
    if (!value.is_array()) {
        o.Fail(path, Dotted(path) + " must be a list");
    }
    if (value.size() > limit.max) {
        o.Fail(path, Dotted(path) + " has more than " + Whole(limit.max) + " " + what);
    }
    return value;
}

int32_t Direction(Object& object) {
    std::string path;
    const json* value = object.Take("direction", &path);
    if (value == nullptr) {
        return 0;
    }
    static const std::map<std::string, ScrollDirection> kNames = {{"none", ScrollDirection::None},
                                                                  {"right", ScrollDirection::Right},
                                                                  {"left", ScrollDirection::Left},
                                                                  {"down", ScrollDirection::Down},
                                                                  {"up", ScrollDirection::Up}};
    const auto found = value->is_string() ? kNames.find(value->get<std::string>()) : kNames.end();
    if (found == kNames.end()) {
        object.Fail(path, Dotted(path) + " must be one of none, left, right, up, down");
    }
    return static_cast<int32_t>(found->second);
}

Scroll ReadScroll(Object& object) {
    Scroll scroll;
    scroll.direction = Direction(object);
    scroll.speed = static_cast<uint32_t>(object.Int("speed", 0, kSpeed));
    scroll.wrap = object.Bool("wrap", false);
    return scroll;
}

TextStyle ReadStyle(const Reader& reader, const json& value, const std::string& path) {
    Object o(reader, value, path);
    TextStyle style;
    const std::u16string face = platform::Utf8ToU16(o.String("faceName", ""));
    platform::U16CopyTruncate(style.faceName, std::size(style.faceName), face.c_str(), face.size());
    style.fontSize = o.Int("fontSize", style.fontSize, kFontSize);
    style.bold = o.Bool("bold", false);
    style.italic = o.Bool("italic", false);
    style.underline = o.Bool("underline", false);
    style.strikeOut = o.Bool("strikeOut", false);
    style.vertical = o.Bool("vertical", false);
    style.horizontalAlign = o.Int("horizontalAlign", 0, kAlign);
    style.verticalAlign = o.Int("verticalAlign", 0, kAlign);
    style.fillColor1 = o.Colour("fillColor1", 0xFFFFFF);
    style.fillColor2 = o.Colour("fillColor2", style.fillColor1);
    style.fillAngle = static_cast<float>(o.Number("fillAngle", 0, kFillAngle));
    style.fillAlpha1 = static_cast<uint32_t>(o.Int("fillAlpha1", 100, kPercent));
    style.fillAlpha2 = static_cast<uint32_t>(o.Int("fillAlpha2", 100, kPercent));
    style.backColor = o.Colour("backColor", style.backColor);
    style.backAlpha = static_cast<uint32_t>(o.Int("backAlpha", 0, kPercent));
    style.outline = o.Bool("outline", false);
    style.outlineWidth = static_cast<float>(o.Number("outlineWidth", 0, kOutlineWidth));
    style.outlineColor = o.Colour("outlineColor", 0);
    style.outlineAlpha = static_cast<uint32_t>(o.Int("outlineAlpha", 100, kPercent));
    o.Done();
    return style;
}

TextLayer ReadText(const Reader& reader, const json& value, const std::string& path) {
    Object o(reader, value, path);
    TextLayer text;
    text.text = o.Text("content");
    if (!kContent.Admits(text.text.size())) {
        o.Fail(path + "/content",
               "\"content\" is longer than " + Grouped(kContent.max) + " UTF-16 units");
    }
    std::string stylePath;
    if (const json* style = o.Take("style", &stylePath)) {
        text.style = ReadStyle(reader, *style, stylePath);
    } else {
        text.style.fillColor1 = text.style.fillColor2 = 0xFFFFFF;
    }
    text.pos = o.Point("at", POINT{0, 0});
    text.clip = o.Rect("clip", RECT{0, 0, 0, 0});
    text.scroll = ReadScroll(o);
    o.Done();
    return text;
}

PlateLayer ReadPlate(const Reader& reader, const json& value, const std::string& path) {
    Object o(reader, value, path);
    PlateLayer plate;
    plate.colour = o.Colour("color", 0x000000);
    plate.opacity = static_cast<uint32_t>(o.Int("opacity", 60, kPercent));
    plate.spanClip = o.Bool("spanClip", false);
    o.Done();
    return plate;
}

Item ReadItem(const Reader& reader, const json& value, const std::string& path) {
    Object o(reader, value, path);
    Item item;
    std::string part;
    if (const json* movie = o.Take("movie", &part)) {
        Object m(reader, *movie, part);
        MovieLayer layer;
        layer.path = m.Media("path", MediaUse::Movie);
        layer.pos = m.Point("at", POINT{0, 0});
        layer.clip = m.Rect("clip", RECT{0, 0, 0, 0});
        layer.scroll = ReadScroll(m);
        layer.ignoreMovieEnd = m.Bool("ignoreEnd", false);
        m.Done();
        item.movie = layer;
    }
    if (const json* text = o.Take("text", &part)) {
        item.text = ReadText(reader, *text, part);
    }
    if (const json* plate = o.Take("plate", &part)) {
        item.plate = ReadPlate(reader, *plate, part);
    }
    item.playCount = o.Int("plays", 1, kPlays);
    if (!item.movie && !item.text) {
        o.Fail(path, Dotted(path) + " needs a \"movie\" or a \"text\"");
    }
    o.Done();
    return item;
}

Subtitle ReadSubtitle(const Reader& reader, const json& value, const std::string& path) {
    Object o(reader, value, path);
    Subtitle subtitle;
    subtitle.id = o.Text("id");
    if (!kId.Admits(subtitle.id.size())) {
        o.Fail(path + (o.Has("id") ? "/id" : ""), Dotted(path) + " needs an \"id\" of " +
                                                      Whole(kId.min) + " to " + Whole(kId.max) +
                                                      " characters");
    }
    subtitle.group = o.Text("group");
    subtitle.pos = o.Point("at", POINT{0, 0});
    subtitle.loop = o.Bool("loop", false);
    subtitle.intervalMs = o.Int("interval", 0, kInterval);
    std::string itemsPath;
    const json* items = o.Take("items", &itemsPath);
    if (items == nullptr || (items->is_array() && items->size() < kItems.min)) {
        o.Fail(items == nullptr ? path : itemsPath, Dotted(path) + " needs a list of \"items\"");
    }
    List(o, *items, itemsPath, "items", kItems);
    for (size_t i = 0; i < items->size(); ++i) {
        subtitle.items.push_back(
            ReadItem(reader, (*items)[i], itemsPath + "/" + std::to_string(i)));
    }
    o.Done();
    return subtitle;
}

template <size_t N>
std::array<std::u16string, N> Texts(Object& o, const char* name) {
    std::string path;
    const json* value = o.Take(name, &path);
    std::array<std::u16string, N> texts;
    if (value == nullptr) {
        return texts;
    }
    if (!value->is_array() || value->size() != N ||
        !std::all_of(value->begin(), value->end(), [](const json& t) { return t.is_string(); })) {
        o.Fail(path, Dotted(path) + " must be a list of " + std::to_string(N) + " strings");
    }
    for (size_t i = 0; i < N; ++i) {
        texts[i] = platform::Utf8ToU16((*value)[i].get<std::string>());
    }
    return texts;
}

// The banners of a scene (layout is the scene's size, the third banner's
// rect by default), or of a banners action, where a banner may be null to
// take it down.
void ReadBanners(const Reader& reader, const json& value, const std::string& path, SIZE layout,
                 Banners& banners, BannerChange* change) {
    Object o(reader, value, path);
    std::string part;
    // A null banner in an action takes it down; elsewhere it is no object.
    const auto present = [&](const json* banner, BannerChange::Kind* kind) {
        if (banner == nullptr) {
            return false;
        }
        if (change != nullptr) {
            *kind = banner->is_null() ? BannerChange::Kind::TakeDown : BannerChange::Kind::Put;
            return !banner->is_null();
        }
        return true;
    };
    BannerChange ignored;
    BannerChange& kinds = change != nullptr ? *change : ignored;
    if (const json* tavrin = o.Take("tavrin", &part); present(tavrin, &kinds.tavrin)) {
        Object t(reader, *tavrin, part);
        TavrinBanner banner;
        banner.texts = Texts<6>(t, "texts");
        banner.images = {t.Media("image1", MediaUse::Picture),
                         t.Media("image2", MediaUse::Picture)};
        banner.origin = t.Point("origin", POINT{0, 0});
        t.Done();
        banners.tavrin = banner;
    }
    if (const json* quellin = o.Take("quellin", &part); present(quellin, &kinds.quellin)) {
        Object q(reader, *quellin, part);
        QuellinBanner banner;
        banner.texts = Texts<2>(q, "texts");
        banner.plate = q.Media("plate", MediaUse::Picture);
        banner.origin = q.Point("origin", POINT{0, 0});
        q.Done();
        banners.quellin = banner;
    }
    if (const json* ombrel = o.Take("ombrel", &part); present(ombrel, &kinds.ombrel)) {
        Object m(reader, *ombrel, part);
        OmbrelBanner banner;
        banner.text = m.Text("text");
        banner.fontSize = m.Int("fontSize", 16, kFontSize);
        banner.caps = m.Media("caps", MediaUse::Picture);
        banner.middle = m.Media("middle", MediaUse::Picture);
        banner.rect = m.Rect("rect", RECT{0, 0, layout.cx, layout.cy});
        banner.scale = static_cast<float>(m.Number("scale", 1.0, kScale));
        m.Done();
        banners.ombrel = banner;
    }
    o.Done();
}

Action ReadAction(const Reader& reader, const json& value, const std::string& path) {
    Object o(reader, value, path);
    Action action;
    action.at = o.Number("at", 0, kActionTime);
    const std::string kind = o.String("do", "");
    std::string part;
    if (kind == "add") {
        action.kind = Action::Kind::Add;
        const json* subtitle = o.Take("subtitle", &part);
        if (subtitle == nullptr) {
            o.Fail(path, Dotted(path) + " needs a \"subtitle\"");
        }
        action.subtitle = std::make_shared<Subtitle>(ReadSubtitle(reader, *subtitle, part));
    } else if (kind == "remove") {
        action.kind = Action::Kind::Remove;
        action.id = o.Text("id");
    } else if (kind == "removeAll") {
        action.kind = Action::Kind::RemoveAll;
    } else if (kind == "trim") {
        action.kind = Action::Kind::Trim;
        action.group = o.Text("group");
        action.keep = static_cast<uint32_t>(o.Int("keep", 0, kKeep));
    } else if (kind == "move") {
        action.kind = Action::Kind::Move;
        action.id = o.Text("id");
        action.to = o.Point("to", POINT{0, 0});
    } else if (kind == "drag") {
        action.kind = Action::Kind::Drag;
        action.group = o.Text("group");
        action.from = o.Point("from", POINT{0, 0});
        action.to = o.Point("to", POINT{0, 0});
    } else if (kind == "text") {
        action.kind = Action::Kind::Text;
        action.id = o.Text("id");
        const json* text = o.Take("text", &part);
        if (text == nullptr) {
            o.Fail(path, Dotted(path) + " needs a \"text\"");
        }
        action.text = std::make_shared<TextLayer>(ReadText(reader, *text, part));
    } else if (kind == "plate") {
        action.kind = Action::Kind::Plate;
        action.id = o.Text("id");
        const json* plate = o.Take("plate", &part);
        if (plate == nullptr) {
            o.Fail(path, Dotted(path) + " needs a \"plate\"");
        }
        action.plate = ReadPlate(reader, *plate, part);
    } else if (kind == "banners") {
        action.kind = Action::Kind::Banners;
        action.banners = std::make_shared<BannerChange>();
        // The banners are read as a scene's are, from the action's other
        // fields. The third banner's rect defaults to the whole scene, whose
        // size the player knows: an empty rect stands for it.
        json fields = value;
        fields.erase("at");
        fields.erase("do");
        for (const char* name : {"tavrin", "quellin", "ombrel"}) {
            o.Take(name, &part);
        }
        ReadBanners(reader, fields, path, SIZE{0, 0}, action.banners->banners,
                    action.banners.get());
    } else {
        o.Fail(path + (o.Has("do") ? "/do" : ""),
               Dotted(path) +
                   " needs \"do\": add, remove, removeAll, trim, move, drag, text, "
                   "plate or banners");
    }
    o.Done();
    return action;
}

// The subtitles alive at once as the manager keeps them: an add of a known id
// sets that subtitle up again, a trim removes a group's oldest. None is
// counted as ending by itself, so the count is the most there could be.
class AliveSubtitles {
  public:
    size_t Add(const std::u16string& id, const std::u16string& group) {
        Remove(id);
        m_alive.emplace(id, std::make_pair(group, m_next));
        m_groups[group].emplace(m_next++, id);
        return m_alive.size();
    }
    void Remove(const std::u16string& id) {
        const auto found = m_alive.find(id);
        if (found != m_alive.end()) {
            m_groups[found->second.first].erase(found->second.second);
            m_alive.erase(found);
        }
    }
    void Trim(const std::u16string& group, uint32_t keep) {
        std::map<uint64_t, std::u16string>& members = m_groups[group];
        while (members.size() > keep) {
            m_alive.erase(members.begin()->second);
            members.erase(members.begin());
        }
    }
    void Clear() {
        m_alive.clear();
        m_groups.clear();
    }

  private:
    uint64_t m_next = 0;
    std::map<std::u16string, std::pair<std::u16string, uint64_t>> m_alive;  // group, age
    std::map<std::u16string, std::map<uint64_t, std::u16string>> m_groups;  // age -> id
};

// Refuses, at the add that would do it, a timeline that could have more than
// kSubtitlesAtOnce alive. order lists the actions' indices in time order.
void CheckAlive(const Reader& reader, const Scene& scene, const std::vector<size_t>& order,
                const std::string& actionsPath) {
    AliveSubtitles alive;
    for (const Subtitle& subtitle : scene.subtitles) {
        alive.Add(subtitle.id, subtitle.group);
    }
    for (const size_t i : order) {
        const Action& action = scene.actions[i];
        switch (action.kind) {
            case Action::Kind::Add:
                if (!kSubtitlesAtOnce.Admits(
                        alive.Add(action.subtitle->id, action.subtitle->group))) {
                    const std::string path = actionsPath + "/" + std::to_string(i);
                    reader.Fail(path, Dotted(path) + " could make " +
                                          Whole(kSubtitlesAtOnce.max + 1) +
                                          " subtitles play at once; at most " +
                                          Whole(kSubtitlesAtOnce.max) +
                                          " can: remove or trim some before it");
                }
                break;
            case Action::Kind::Remove:
                alive.Remove(action.id);
                break;
            case Action::Kind::RemoveAll:
                alive.Clear();
                break;
            case Action::Kind::Trim:
                alive.Trim(action.group, action.keep);
                break;
            default:
                break;
        }
    }
}

}  // namespace

bool ParseColour(const std::string& text, uint32_t* colour) {
    if (text.size() != 7 || text[0] != '#' ||
        !std::all_of(text.begin() + 1, text.end(),
                     [](unsigned char c) { return std::isxdigit(c) != 0; })) {
        return false;
    }
    *colour = static_cast<uint32_t>(std::stoul(text.substr(1), nullptr, 16));
    return true;
}

namespace {

// Parses text into root with located errors. Every reading starts here, so a
// scene and a live action are refused with the same words.
void ParseJson(const std::string& text, const std::string& name, size_t& read,
               LocatingParser& parser, const Reader& reader) {
    const CountingIterator first(text.data(), text.data(), &read);
    const CountingIterator last(text.data() + text.size(), text.data(), &read);
    if (text.size() > kMaxSceneBytes) {
        throw SceneError(name + ": larger than " + Whole(kSceneBytes.max / (1 << 20)) +
                         " MiB; no scene is that large");
    }
    try {
        json::sax_parse(first, last, &parser);
    } catch (const SceneTooDeep&) {
        // Where the bracket that goes one level too deep is.
        throw SceneError(reader.Where(read - 1) + ": nested more than " + Whole(kDepth.max) +
                         " levels deep");
    } catch (const json::parse_error& error) {
        // "[json.exception.parse_error.101] parse error at line 3, column 7: syntax error
        // while parsing value - ...": keep what follows the position.
        std::string what = error.what();
        const size_t colon = what.find(": ", what.find("column"));
        what = colon == std::string::npos ? what : what.substr(colon + 2);
        throw SceneError(reader.Where(error.byte == 0 ? 0 : error.byte - 1) + ": " + what);
    } catch (const json::exception& error) {
        // A number beyond a double's range: the parser stops right after it.
        std::string what = error.what();
        const size_t close = what.find("] ");
        throw SceneError(reader.Where(parser.NumberStart()) + ": " +
                         (close == std::string::npos ? what : what.substr(close + 2)));
    }
}

}  // namespace

std::vector<ReadOutcome> ParseActions(const std::string& text, const std::string& name,
                                      const std::string& baseDir, const MediaCheck& check,
                                      size_t maxCount) {
    json root;
    size_t read = 0;
    LocatingParser parser(root, text, &read);
    Reader reader(name, text, baseDir, parser, check);
    ParseJson(text, name, read, parser, reader);
    if (!root.is_array() && !root.is_object()) {
        reader.Fail("", "an action is an object, and actions a list of them");
    }
    if (root.is_array() && root.size() > maxCount) {
        reader.Fail("", "more than " + std::to_string(maxCount) + " actions at once");
    }
    std::vector<ReadOutcome> outcomes;
    const auto one = [&](const json& value, const std::string& path) {
        ReadOutcome outcome;
        try {
            if (value.is_object() && value.contains("at")) {
                reader.Fail(path + "/at#",
                            "\"at\" has no meaning for an action applied now; leave it out");
            }
            outcome.action = ReadAction(reader, value, path);
        } catch (const SceneError& error) {
            outcome.error = error.what();
        }
        outcomes.push_back(std::move(outcome));
    };
    if (root.is_object()) {
        one(root, "");
    } else {
        for (size_t i = 0; i < root.size(); ++i) {
            one(root[i], "/" + std::to_string(i));
        }
    }
    return outcomes;
}

Action ParseAction(const std::string& text, const std::string& name, const std::string& baseDir,
                   const MediaCheck& check) {
    std::vector<ReadOutcome> outcomes = ParseActions(text, name, baseDir, check, 1);
    if (outcomes.empty()) {
        throw SceneError(name + ": no action");
    }
    if (!outcomes.front().action) {
        throw SceneError(outcomes.front().error);
    }
    return std::move(*outcomes.front().action);
}

Scene ParseScene(const std::string& text, const std::string& name, const std::string& baseDir,
                 const MediaCheck& check) {
    json root;
    size_t read = 0;
    LocatingParser parser(root, text, &read);
    Reader reader(name, text, baseDir, parser, check);
    ParseJson(text, name, read, parser, reader);

    Scene scene;
    Object o(reader, root, "");
    std::string path;
    if (const json* size = o.Take("size", &path)) {
        const auto side = [&](size_t i) {
            return (*size)[i].is_number_integer() &&
                   kFrameSide.Admits(static_cast<double>((*size)[i].get<int64_t>()));
        };
        if (!size->is_array() || size->size() != 2 || !side(0) || !side(1)) {
            o.Fail(path, "\"size\" must be [width, height], each " + Whole(kFrameSide.min) +
                             " to " + Whole(kFrameSide.max) + " pixels");
        }
        scene.width = (*size)[0].get<int32_t>();
        scene.height = (*size)[1].get<int32_t>();
    }
    scene.fps = o.Number("fps", scene.fps, kFps);
    scene.duration = o.Number("duration", scene.duration, kDuration);
    if (const json* background = o.Take("background", &path)) {
        if (background->is_string()) {
            if (!ParseColour(background->get<std::string>(), &scene.background.colour)) {
                o.Fail(path, "\"background\" must be a colour \"#RRGGBB\" or an object");
            }
        } else {
            Object b(reader, *background, path);
            const bool video = b.Has("video");
            scene.background.kind = video ? Background::Kind::Video : Background::Kind::Image;
            scene.background.path = b.Media(video ? "video" : "image", MediaUse::Picture);
            b.Done();
        }
    }
    if (const json* subtitles = o.Take("subtitles", &path)) {
        List(o, *subtitles, path, "subtitles", kSubtitles);
        for (size_t i = 0; i < subtitles->size(); ++i) {
            scene.subtitles.push_back(
                ReadSubtitle(reader, (*subtitles)[i], path + "/" + std::to_string(i)));
        }
    }
    if (const json* banners = o.Take("banners", &path)) {
        Banners read;
        ReadBanners(reader, *banners, path, SIZE{scene.width, scene.height}, read, nullptr);
        scene.tavrin = std::move(read.tavrin);
        scene.quellin = std::move(read.quellin);
        scene.ombrel = std::move(read.ombrel);
    }
    if (const json* virtualScene = o.Take("scene", &path)) {
        Object s(reader, *virtualScene, path);
        scene.virtualScene =
            VirtualScene{s.Media("path", MediaUse::Movie), s.Rect("rect", RECT{0, 0, 320, 180})};
        s.Done();
    }
    if (const json* actions = o.Take("actions", &path)) {
        List(o, *actions, path, "actions", kActions);
        for (size_t i = 0; i < actions->size(); ++i) {
            scene.actions.push_back(
                ReadAction(reader, (*actions)[i], path + "/" + std::to_string(i)));
        }
        std::vector<size_t> order(scene.actions.size());
        for (size_t i = 0; i < order.size(); ++i) {
            order[i] = i;
        }
        std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
            return scene.actions[a].at < scene.actions[b].at;
        });
        CheckAlive(reader, scene, order, path);
        std::vector<Action> sorted;
        sorted.reserve(order.size());
        for (const size_t i : order) {
            sorted.push_back(std::move(scene.actions[i]));
        }
        scene.actions = std::move(sorted);
    }
    o.Done();
    return scene;
}

Scene LoadScene(const std::string& path, const MediaCheck& check) {
    const std::string why = WhyNotAFile(path);
    if (!why.empty()) {
        throw SceneError("scene file " + path + ": " + why);
    }
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(path, error);
    if (!error && size > kMaxSceneBytes) {
        throw SceneError(path + ": larger than " + Whole(kSceneBytes.max / (1 << 20)) +
                         " MiB; no scene is that large");
    }
    std::string text;
    // Read without blocking and only if still a regular file: the path may
    // have changed since it was looked at.
    if (!error && size > 0 &&
        !platform::ReadRegularFile(path.c_str(), kMaxSceneBytes, [&](size_t bytes) {
            text.resize(bytes);
            return reinterpret_cast<uint8_t*>(text.data());
        })) {
        throw SceneError("scene file " + path + ": cannot be read");
    }
    return ParseScene(text, path, SceneFolder(path), check);
}

}  // namespace lumets::playback
