#include "platform/text.h"

#include <cwchar>
#include <cwctype>

namespace host {
namespace {

struct Spec {
    std::wstring flags;
    int width = -1;
    int precision = -1;
    std::wstring length;
    wchar_t conv = 0;
};

void pad(std::wstring& out, const std::wstring& text, const Spec& spec) {
    const bool left = spec.flags.find(L'-') != std::wstring::npos;
    const std::size_t width = spec.width < 0 ? 0 : static_cast<std::size_t>(spec.width);
    if (!left && text.size() < width) out.append(width - text.size(), L' ');
    out += text;
    if (left && text.size() < width) out.append(width - text.size(), L' ');
}

// Formats one numeric conversion with the C library, rebuilding its spec.
template <class T>
void formatNumber(std::wstring& out, const Spec& spec, const wchar_t* length, T value) {
    std::wstring fmt;
    fmt.reserve(24);  // one allocation: the event log formats numbers on every line
    fmt += L'%';
    fmt += spec.flags;
    if (spec.width >= 0) fmt += std::to_wstring(spec.width);
    if (spec.precision >= 0) {
        fmt += L'.';
        fmt += std::to_wstring(spec.precision);
    }
    fmt += length;
    fmt += spec.conv;
    wchar_t buffer[512];
    int n = std::swprintf(buffer, sizeof buffer / sizeof buffer[0], fmt.c_str(), value);
    if (n > 0) out.append(buffer, static_cast<std::size_t>(n));
}

bool isLong(const Spec& s) {
    return s.length == L"l";
}
bool isLongLong(const Spec& s) {
    return s.length == L"ll" || s.length == L"I64" || s.length == L"q";
}
bool isSize(const Spec& s) {
    return s.length == L"z" || s.length == L"j" || s.length == L"t";
}

}  // namespace

std::wstring vwformat(const wchar_t* fmt, va_list args) {
    std::wstring out;
    if (!fmt) return out;
    out.reserve(std::wcslen(fmt) + 64);  // most texts then never grow
    va_list ap;
    va_copy(ap, args);
    for (const wchar_t* p = fmt; *p;) {
        if (*p != L'%') {
            out += *p++;
            continue;
        }
        ++p;
        if (*p == L'%') {
            out += L'%';
            ++p;
            continue;
        }
        Spec spec;
        while (*p && std::wcschr(L"-+ #0", *p)) spec.flags += *p++;
        if (*p == L'*') {
            spec.width = va_arg(ap, int);
            if (spec.width < 0) {
                spec.flags += L'-';
                spec.width = -spec.width;
            }
            ++p;
        } else {
            while (std::iswdigit(*p))
                spec.width = (spec.width < 0 ? 0 : spec.width * 10) + (*p++ - L'0');
        }
        if (*p == L'.') {
            ++p;
            spec.precision = 0;
            if (*p == L'*') {
                spec.precision = va_arg(ap, int);
                ++p;
            } else {
                while (std::iswdigit(*p)) spec.precision = spec.precision * 10 + (*p++ - L'0');
            }
        }
        if (std::wcsncmp(p, L"I64", 3) == 0) {
            spec.length = L"I64";
            p += 3;
        } else {
            while (*p && std::wcschr(L"hlLqjzt", *p)) spec.length += *p++;
        }
        spec.conv = *p;
        if (!*p) break;
        ++p;
        switch (spec.conv) {
            case L's':
            case L'S': {
                // The original's rule: %s is wide, %S narrow; h and l force narrow and wide.
                bool wide = spec.conv == L's';
                if (spec.length == L"h") wide = false;
                if (spec.length == L"l" || spec.length == L"w") wide = true;
                std::wstring text;
                if (wide) {
                    const wchar_t* s = va_arg(ap, const wchar_t*);
                    text = s ? s : L"(null)";
                } else {
                    const char* s = va_arg(ap, const char*);
                    text = s ? widen(s) : L"(null)";
                }
                if (spec.precision >= 0 && text.size() > static_cast<std::size_t>(spec.precision))
                    text.resize(static_cast<std::size_t>(spec.precision));
                pad(out, text, spec);
                break;
            }
            case L'c':
            case L'C': {
                int c = va_arg(ap, int);
                bool wide = spec.conv == L'c';
                if (spec.length == L"h") wide = false;
                wchar_t ch = wide ? static_cast<wchar_t>(c)
                                  : static_cast<wchar_t>(static_cast<unsigned char>(c));
                pad(out, std::wstring(1, ch), spec);
                break;
            }
            case L'd':
            case L'i':
                if (isLongLong(spec))
                    formatNumber(out, spec, L"ll", va_arg(ap, long long));
                else if (isLong(spec) || isSize(spec))
                    formatNumber(out, spec, L"l", va_arg(ap, long));
                else
                    formatNumber(out, spec, L"", va_arg(ap, int));
                break;
            case L'u':
            case L'x':
            case L'X':
            case L'o':
                if (isLongLong(spec))
                    formatNumber(out, spec, L"ll", va_arg(ap, unsigned long long));
                else if (isLong(spec) || isSize(spec))
                    formatNumber(out, spec, L"l", va_arg(ap, unsigned long));
                else
                    formatNumber(out, spec, L"", va_arg(ap, unsigned int));
                break;
            case L'f':
            case L'F':
            case L'e':
            case L'E':
            case L'g':
            case L'G':
                formatNumber(out, spec, L"", va_arg(ap, double));
                break;
            case L'p':
                formatNumber(out, spec, L"", va_arg(ap, void*));
                break;
            default:
                // Unknown conversion: shown as written.
                out += L'%';
                out += spec.conv;
                break;
        }
    }
    va_end(ap);
    return out;
}

std::wstring wformat(const wchar_t* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::wstring text = vwformat(fmt, args);
    va_end(args);
    return text;
}

std::wstring widen(std::string_view utf8) {
    std::wstring out;
    out.reserve(utf8.size());
    for (std::size_t i = 0; i < utf8.size();) {
        unsigned char c = static_cast<unsigned char>(utf8[i]);
        char32_t cp;
        std::size_t extra;
        if (c < 0x80) {
            cp = c;
            extra = 0;
        } else if ((c & 0xE0) == 0xC0) {
            cp = c & 0x1F;
            extra = 1;
        } else if ((c & 0xF0) == 0xE0) {
            cp = c & 0x0F;
            extra = 2;
        } else if ((c & 0xF8) == 0xF0) {
            cp = c & 0x07;
            extra = 3;
        } else {
            out += static_cast<wchar_t>(c);  // not UTF-8: keep the byte as Latin-1
            ++i;
            continue;
        }
        bool ok = true;
        for (std::size_t k = 1; k <= extra; ++k) {
            if (i + k >= utf8.size() || (static_cast<unsigned char>(utf8[i + k]) & 0xC0) != 0x80) {
                ok = false;
                break;
            }
            cp = (cp << 6) | (static_cast<unsigned char>(utf8[i + k]) & 0x3F);
        }
        if (!ok) {
            out += static_cast<wchar_t>(c);
            ++i;
            continue;
        }
        out += static_cast<wchar_t>(cp);
        i += extra + 1;
    }
    return out;
}

std::string narrow(std::wstring_view wide) {
    std::string out;
    out.reserve(wide.size());
    for (wchar_t wc : wide) {
        auto cp = static_cast<std::uint32_t>(wc);
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | ((cp >> 18) & 0x07));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    return out;
}

std::vector<unsigned char> toUtf16le(std::wstring_view wide) {
    std::vector<unsigned char> out;
    out.reserve(wide.size() * 2);
    auto unit = [&out](std::uint32_t u) {
        out.push_back(static_cast<unsigned char>(u & 0xFF));
        out.push_back(static_cast<unsigned char>((u >> 8) & 0xFF));
    };
    for (wchar_t wc : wide) {
        auto cp = static_cast<std::uint32_t>(wc);
        if (cp >= 0x10000 && cp <= 0x10FFFF) {
            cp -= 0x10000;
            unit(0xD800 | (cp >> 10));
            unit(0xDC00 | (cp & 0x3FF));
        } else {
            unit(cp & 0xFFFF);
        }
    }
    return out;
}

std::wstring fromUtf16le(const unsigned char* bytes, std::size_t size) {
    std::wstring out;
    out.reserve(size / 2);
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        std::uint32_t u = bytes[i] | (bytes[i + 1] << 8);
        if (u >= 0xD800 && u < 0xDC00 && i + 3 < size) {
            std::uint32_t lo = bytes[i + 2] | (bytes[i + 3] << 8);
            if (lo >= 0xDC00 && lo < 0xE000) {
                out += static_cast<wchar_t>(0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00));
                i += 2;
                continue;
            }
        }
        out += static_cast<wchar_t>(u);
    }
    return out;
}

bool iequals(std::wstring_view a, std::wstring_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::towlower(a[i]) != std::towlower(b[i])) return false;
    return true;
}

}  // namespace host
