// IWeirdSubtitleManager: three fixed-layout image-and-text banners.
#pragma once

#include <cstdint>

#include "lumets/export.h"
#include "lumets/frame.h"
#include "lumets/win_types.h"

class IPBO;  // the host's pixel-buffer object (lumets/host/gl_objects.h)
using GLuint = unsigned int;

// The order of the operations is the virtual-table layout the host calls
// through; never reorder, insert or remove one. Frames are 24-bit B, G, R,
// rows bottom-up and padded to 4 bytes.
class LUMETS_API IWeirdSubtitleManager {
  public:
    virtual void SetTavrinTexts(const char16_t* text1, const char16_t* text2, const char16_t* text3,
                                const char16_t* text4, const char16_t* text5,
                                const char16_t* text6) = 0;
    virtual void LoadTavrinImages(const char16_t* image1Path, const char16_t* image2Path) = 0;
    virtual void ComposeTavrin(uint8_t* frame, int width, int height, const POINT* origin) = 0;
    virtual void SetQuellinTexts(const char16_t* text1, const char16_t* text2, int reserved) = 0;
    virtual void LoadQuellinPlate(const char16_t* platePath) = 0;
    virtual void ComposeQuellin(uint8_t* frame, int width, int height, const POINT* origin) = 0;
    virtual void SetOmbrelText(const char16_t* text, int fontSize) = 0;
    virtual void LoadOmbrelImages(const char16_t* capsPath, const char16_t* middlePath) = 0;
    virtual void ComposeOmbrel(uint8_t* frame, int width, int height, const RECT* rect,
                               float scale) = 0;
    virtual void DrawOmbrelToTexture(GLuint texture, int* width, int* height, IPBO* pbo) = 0;
    virtual ~IWeirdSubtitleManager();
    // After the host's layout: the three compositions into a frame of any
    // layout lumets/frame.h describes.
    virtual void ComposeTavrinToFrame(const lumets_frame* frame, const POINT* origin) = 0;
    virtual void ComposeQuellinToFrame(const lumets_frame* frame, const POINT* origin) = 0;
    virtual void ComposeOmbrelToFrame(const lumets_frame* frame, const RECT* rect, float scale) = 0;

  protected:
    IWeirdSubtitleManager();

  public:
    IWeirdSubtitleManager(const IWeirdSubtitleManager&);
    IWeirdSubtitleManager& operator=(const IWeirdSubtitleManager&);
};

LUMETS_API IWeirdSubtitleManager* CreateWeirdSubtitleManager();
// A null pointer is ignored.
LUMETS_API void DeleteWeirdSubtitleManager(IWeirdSubtitleManager* manager);
