/* A host's frame as the library draws into it: where its pixels lie, in
 * which layout, rows in which direction. Plain C, shared by the C interface
 * and the managers' interfaces. */
#ifndef LUMETS_FRAME_H
#define LUMETS_FRAME_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The byte order of one pixel as it lies in memory. In the 32-bit layouts the
 * fourth byte is the host's: it is never written, alpha or padding. */
typedef enum lumets_format {
    LUMETS_FORMAT_BGR24 = 1,
    LUMETS_FORMAT_RGB24 = 2,
    LUMETS_FORMAT_BGRX = 3,
    LUMETS_FORMAT_BGRA = 4,
    LUMETS_FORMAT_RGBX = 5,
    LUMETS_FORMAT_RGBA = 6
} lumets_format;

/* The frame's rows from the top: row r (0 the top row) starts at
 *   data + r * stride                    without flags,
 *   data + (height - 1 - r) * stride     with LUMETS_FRAME_BOTTOM_UP.
 * So a bottom-up buffer is either data at its first byte with the flag, or
 * data at its last row with a negative stride. |stride| must hold a row
 * (width * 3 or width * 4 bytes); any padding beyond it is left alone. */
#define LUMETS_FRAME_BOTTOM_UP 1u

/* A frame the host owns, drawn into in place. */
typedef struct lumets_frame {
    void* data;
    int32_t width;
    int32_t height;
    int64_t stride;
    int32_t format; /* lumets_format */
    uint32_t flags; /* LUMETS_FRAME_BOTTOM_UP or 0 */
} lumets_frame;

#ifdef __cplusplus
}
#endif

#endif /* LUMETS_FRAME_H */
