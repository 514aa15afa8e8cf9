#include "text_command.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "lumets_platform/utf16.h"
#include "text/png_writer.h"
#include "text/text_renderer.h"

namespace lumets::tool {

namespace {

struct TextOptions {
    std::string text = "Lumets 字幕 ✨";
    std::string output = "out/text.png";
    std::string face;
    int32_t fontSize = 24;
    bool bold = false;
    bool italic = false;
    bool underline = false;
    bool strikeOut = false;
    bool vertical = false;
    int32_t horizontalAlign = 0;
    int32_t verticalAlign = 0;
    uint32_t fillColor1 = 0xFFFFFF;
    uint32_t fillColor2 = 0xFFFFFF;
    float fillAngle = 0;
    uint32_t backColor = 0x000000;
    uint32_t backAlpha = 0;
    float outlineWidth = 0;
    uint32_t outlineColor = 0x000000;
};

void Run(const TextOptions& options) {
    TextStyle style;
    const std::u16string face = platform::Utf8ToU16(options.face);
    platform::U16CopyTruncate(style.faceName, 32, face.c_str(), face.size());
    style.fontSize = options.fontSize;
    style.bold = options.bold;
    style.italic = options.italic;
    style.underline = options.underline;
    style.strikeOut = options.strikeOut;
    style.vertical = options.vertical;
    style.horizontalAlign = options.horizontalAlign;
    style.verticalAlign = options.verticalAlign;
    style.fillColor1 = options.fillColor1;
    style.fillColor2 = options.fillColor2;
    style.fillAngle = options.fillAngle;
    style.backColor = options.backColor;
    style.backAlpha = options.backAlpha;
    style.outline = options.outlineWidth > 0;
    style.outlineWidth = options.outlineWidth;
    style.outlineColor = options.outlineColor;

    // "\n" in the argument stands for a line break.
    std::string text = options.text;
    for (size_t at = text.find("\\n"); at != std::string::npos; at = text.find("\\n", at)) {
        text.replace(at, 2, "\n");
    }
    const std::u16string text16 = platform::Utf8ToU16(text);
    CTextRenderer renderer;
    renderer.Render(text16.c_str(), &style);
    const SIZE size = renderer.GetSize();
    std::vector<uint8_t> pixels(static_cast<size_t>(size.cx) * size.cy * 4);
    renderer.CopyBuffer(pixels.data(), static_cast<uint32_t>(pixels.size()));
    if (!WritePng(options.output,
                  PackedPicture<const uint8_t>(pixels.data(), size.cx, size.cy, 32))) {
        std::fprintf(stderr, "lumets: cannot write %s\n", options.output.c_str());
        std::exit(1);
    }
    std::printf("wrote %s (%dx%d)\n", options.output.c_str(), size.cx, size.cy);
}

}  // namespace

void AddTextCommand(CLI::App& app) {
    auto options = std::make_shared<TextOptions>();
    CLI::App* command = app.add_subcommand("text", "Render one styled text to a PNG");
    command->add_option("text", options->text, "The text (\\n breaks a line)");
    command->add_option("-o,--output", options->output, "PNG file to write")->capture_default_str();
    command->add_option("--face", options->face, "Font face name");
    command->add_option("--size", options->fontSize, "Font size in points");
    command->add_flag("--bold", options->bold);
    command->add_flag("--italic", options->italic);
    command->add_flag("--underline", options->underline);
    command->add_flag("--strike", options->strikeOut);
    command->add_flag("--vertical", options->vertical);
    command->add_option("--halign", options->horizontalAlign, "0 left, 1 centre, 2 right");
    command->add_option("--valign", options->verticalAlign, "0 top, 1 centre, 2 bottom");
    command->add_option("--color1", options->fillColor1, "First fill colour 0xRRGGBB");
    command->add_option("--color2", options->fillColor2, "Second fill colour 0xRRGGBB");
    command->add_option("--angle", options->fillAngle, "Gradient angle in degrees");
    command->add_option("--back", options->backColor, "Background colour 0xRRGGBB");
    command->add_option("--back-alpha", options->backAlpha, "Background opacity in percent");
    command->add_option("--outline", options->outlineWidth, "Outline width in pixels");
    command->add_option("--outline-color", options->outlineColor, "Outline colour 0xRRGGBB");
    command->callback([options] { Run(*options); });
}

}  // namespace lumets::tool
