#include "panel/error_text.h"

#include "platform/debug_out.h"
#include "platform/last_error.h"

namespace panel {

std::wstring lastErrorText() {
    const DWORD code = host::GetLastError();
    auto text = host::FormatMessageText(code);
    // Looking the text up must not change what the caller sees afterwards.
    host::SetLastError(code);
    return text ? *text : L"Error Detail unavailable.";
}

void printErrorText(const wchar_t* prefix, const std::wstring& text) {
    std::wstring line = prefix + text;
    if (line.empty() || line.back() != L'\n') line += L'\n';
    host::NKDbgPrintfW(L"%s", line.c_str());
}

void printLastError(const wchar_t* prefix) {
    printErrorText(prefix, lastErrorText());
}

}  // namespace panel
