// UTF-16 helpers for host strings (char16_t, NUL-terminated, often in fixed
// buffers that the host may leave unterminated).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "lumets/export.h"

namespace lumets::platform {

// Units before the first NUL, never reading past maxUnits. Null gives 0.
LUMETS_PLATFORM_API size_t U16Length(const char16_t* text, size_t maxUnits);

// Copies at most dstUnits - 1 units of src (read within srcMaxUnits) and
// terminates; returns the units copied. dstUnits 0 or a null dst copies nothing;
// a null src gives an empty string.
LUMETS_PLATFORM_API size_t U16CopyTruncate(char16_t* dst, size_t dstUnits, const char16_t* src,
                                           size_t srcMaxUnits);

// Case-insensitive ordinal comparison: <0, 0, >0. Folds ASCII letters, Latin-1
// letters, Greek and Cyrillic basic letters and full-width Latin letters.
// Null sorts before every string.
LUMETS_PLATFORM_API int U16CompareNoCase(const char16_t* a, const char16_t* b);

// UTF-16 to UTF-8 (unpaired surrogates become U+FFFD), reading within maxUnits.
LUMETS_PLATFORM_API std::string U16ToUtf8(const char16_t* text, size_t maxUnits);
// UTF-8 to UTF-16 (invalid sequences become U+FFFD).
LUMETS_PLATFORM_API std::u16string Utf8ToU16(std::string_view text);

// True when a file or directory exists at the path; never throws. Null is false.
LUMETS_PLATFORM_API bool PathFileExists(const char16_t* path);

}  // namespace lumets::platform
