// A combiner that draws nothing and records what it is asked: the order of
// the calls ("dst<flag>;src;draw;"), and every destination and target size.
#pragma once

#include <string>
#include <vector>

#include "lumets/host/gpu_combiner.h"

namespace lumets::test {

struct RecordingCombiner : IGPUCombiner {
    bool Init() override { return true; }
    void Release() override {}
    void SetOpacity(float) override {}
    float GetOpacity() const override { return 1; }
    void Clear(uint32_t) override {}
    uint32_t GetDrawCount() const override { return 0; }
    bool DrawTexture(GLuint, int32_t) override {
        calls += "draw;";
        return true;
    }
    void GetRects(RECT*, RECT*) const override {}
    bool SetDestination(const RECT* rect, int32_t width, int32_t height, int32_t flag) override {
        calls += "dst" + std::to_string(flag) + ";";
        destinations.push_back(*rect);
        targets.push_back(SIZE{width, height});
        return true;
    }
    bool SetSource(const RECT* rect, int32_t, int32_t, int32_t) override {
        calls += "src;";
        sources.push_back(*rect);
        return true;
    }

    std::string calls;
    std::vector<RECT> destinations;
    std::vector<SIZE> targets;
    std::vector<RECT> sources;
};

}  // namespace lumets::test
