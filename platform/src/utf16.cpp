#include "lumets_platform/utf16.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace lumets::platform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
// Longer than any path the file system takes; bounds the walk over a path that
// the caller left unterminated.
constexpr size_t kMaxPathUnits = 32768;

bool IsHighSurrogate(char16_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
bool IsLowSurrogate(char16_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

// Lower-case folding of one code unit, as a case-insensitive compare needs it.
// Covers the scripts that host ids and file names use in practice; letters
// outside these ranges compare exactly.
char16_t FoldCase(char16_t c) {
    if (c < 0x80) {
        return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 0x20) : c;
    }
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) {  // Latin-1 capitals, not the multiplication sign
        return static_cast<char16_t>(c + 0x20);
    }
    if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) {  // Greek capitals (0x3A2 is unassigned)
        return static_cast<char16_t>(c + 0x20);
    }
    if (c >= 0x410 && c <= 0x42F) {  // Cyrillic basic capitals
        return static_cast<char16_t>(c + 0x20);
    }
    if (c >= 0x400 && c <= 0x40F) {  // Cyrillic capitals with marks (Ё, Є, І, ...)
        return static_cast<char16_t>(c + 0x50);
    }
    if (c >= 0xFF21 && c <= 0xFF3A) {  // full-width Latin capitals
        return static_cast<char16_t>(c + 0x20);
    }
    return c;
}

void AppendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

void AppendUtf16(std::u16string& out, char32_t cp) {
    if (cp < 0x10000) {
        out.push_back(static_cast<char16_t>(cp));
    } else {
        cp -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 | (cp >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 | (cp & 0x3FF)));
    }
}

}  // namespace

size_t U16Length(const char16_t* text, size_t maxUnits) {
    if (text == nullptr) {
        return 0;
    }
    size_t n = 0;
    while (n < maxUnits && text[n] != 0) {
        ++n;
    }
    return n;
}

size_t U16CopyTruncate(char16_t* dst, size_t dstUnits, const char16_t* src, size_t srcMaxUnits) {
    if (dst == nullptr || dstUnits == 0) {
        return 0;
    }
    const size_t n = U16Length(src, std::min(srcMaxUnits, dstUnits - 1));
    for (size_t i = 0; i < n; ++i) {
        dst[i] = src[i];
    }
    dst[n] = 0;
    return n;
}

int U16CompareNoCase(const char16_t* a, const char16_t* b) {
    if (a == nullptr || b == nullptr) {
        return (a == nullptr ? 0 : 1) - (b == nullptr ? 0 : 1);
    }
    for (size_t i = 0;; ++i) {
        const int ca = FoldCase(a[i]);
        const int cb = FoldCase(b[i]);
        if (ca != cb) {
            return ca < cb ? -1 : 1;
        }
        if (ca == 0) {
            return 0;
        }
    }
}

std::string U16ToUtf8(const char16_t* text, size_t maxUnits) {
    std::string out;
    const size_t n = U16Length(text, maxUnits);
    out.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        char32_t cp = text[i];
        if (IsHighSurrogate(text[i]) && i + 1 < n && IsLowSurrogate(text[i + 1])) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (IsHighSurrogate(text[i]) || IsLowSurrogate(text[i])) {
            cp = kReplacement;
        }
        AppendUtf8(out, cp);
    }
    return out;
}

std::u16string Utf8ToU16(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        size_t need = 0;
        char32_t cp = 0;
        // The range the first continuation byte may take rules out overlong
        // forms, encoded surrogates and code points above U+10FFFF.
        unsigned char lo = 0x80;
        unsigned char hi = 0xBF;
        if (lead < 0x80) {
            out.push_back(lead);
            ++i;
            continue;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            need = 1;
            cp = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            need = 2;
            cp = lead & 0x0F;
            lo = lead == 0xE0 ? 0xA0 : 0x80;
            hi = lead == 0xED ? 0x9F : 0xBF;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            need = 3;
            cp = lead & 0x07;
            lo = lead == 0xF0 ? 0x90 : 0x80;
            hi = lead == 0xF4 ? 0x8F : 0xBF;
        } else {
            out.push_back(static_cast<char16_t>(kReplacement));
            ++i;
            continue;
        }
        ++i;
        bool ok = true;
        for (size_t k = 0; k < need; ++k, ++i) {
            const auto c = i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
            if (i >= text.size() || c < lo || c > hi) {
                ok = false;  // the offending byte starts the next sequence
                break;
            }
            cp = (cp << 6) | (c & 0x3F);
            lo = 0x80;
            hi = 0xBF;
        }
        AppendUtf16(out, ok ? cp : kReplacement);
    }
    return out;
}

bool PathFileExists(const char16_t* path) {
    const size_t n = U16Length(path, kMaxPathUnits);
    if (n == 0) {
        return false;
    }
    std::error_code ec;
    try {
        return std::filesystem::exists(std::filesystem::path(U16ToUtf8(path, n)), ec) && !ec;
    } catch (...) {
        return false;  // the path could not even be built (allocation)
    }
}

}  // namespace lumets::platform
