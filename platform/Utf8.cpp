#include "platform/Utf8.h"

#include <cstdint>

std::wstring utf8ToWide(const char* utf8) {
    std::wstring out;
    if (!utf8) return out;
    const auto* p = reinterpret_cast<const unsigned char*>(utf8);
    while (*p) {
        uint32_t cp;
        int extra;
        const unsigned char lead = *p++;
        if (lead < 0x80) { cp = lead; extra = 0; }
        else if ((lead & 0xE0) == 0xC0) { cp = lead & 0x1F; extra = 1; }
        else if ((lead & 0xF0) == 0xE0) { cp = lead & 0x0F; extra = 2; }
        else if ((lead & 0xF8) == 0xF0) { cp = lead & 0x07; extra = 3; }
        else return std::wstring();
        for (int i = 0; i < extra; ++i) {
            if ((*p & 0xC0) != 0x80) return std::wstring();  // also stops at the terminator
            cp = (cp << 6) | (*p++ & 0x3F);
        }
        static const uint32_t kMinimum[4] = {0, 0x80, 0x800, 0x10000};
        if (cp < kMinimum[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return std::wstring();
        out.push_back(static_cast<wchar_t>(cp));
    }
    return out;
}

std::string wideToUtf8(const std::wstring& wide) {
    std::string out;
    out.reserve(wide.size());
    for (wchar_t wc : wide) {
        const auto cp = static_cast<uint32_t>(wc);
        if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp <= 0x10FFFF) {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            return std::string();
        }
    }
    return out;
}
