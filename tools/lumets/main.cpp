// lumets: the command-line host of the library.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

#include "demo.h"
#include "text/png_writer.h"
#include "text_command.h"

int main(int argc, char** argv) {
    CLI::App app{"lumets: renders the library's overlays"};
    app.require_subcommand(1);

    std::string demoOutput = "out/demo.png";
    CLI::App* demo = app.add_subcommand("demo", "Render the built-in default scene to a PNG");
    demo->add_option("-o,--output", demoOutput, "PNG file to write")->capture_default_str();

    lumets::tool::AddTextCommand(app);

    CLI11_PARSE(app, argc, argv);

    if (demo->parsed()) {
        const auto frame = lumets::tool::RenderDemoFrame();
        if (!lumets::WritePng(demoOutput,
                                    lumets::PackedPicture(frame.data(), lumets::tool::kDemoWidth,
                                                          lumets::tool::kDemoHeight, 24))) {
            std::fprintf(stderr, "lumets: cannot write %s\n", demoOutput.c_str());
            return 1;
        }
        std::printf("wrote %s (%dx%d)\n", demoOutput.c_str(), lumets::tool::kDemoWidth,
                    lumets::tool::kDemoHeight);
    }
    return 0;
}
