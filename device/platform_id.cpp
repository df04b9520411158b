#include "device/platform_id.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <string_view>

#include "platform/registry.h"

namespace {

// A plain cached value: two threads that both find it undetermined read the
// registry twice and store the same answer, which is harmless.
std::atomic<int> cachedPlatform{PlatformUndetermined};

int readPlatform() {
    host::HKEY key = 0;
    if (host::RegOpenKeyExW(host::HKEY_LOCAL_MACHINE, L"Platform", &key) != ERROR_SUCCESS)
        return PlatformUnreadable;
    // The original reads into a 1024-byte buffer: 512 wide characters. A longer
    // value does not fit and counts as unreadable. The value's type is not examined.
    std::array<wchar_t, 512> name{};
    DWORD size = sizeof name;
    const LONG rc =
        host::RegQueryValueExW(key, L"Name", nullptr, reinterpret_cast<BYTE*>(name.data()), &size);
    host::RegCloseKey(key);
    if (rc != ERROR_SUCCESS) return PlatformUnreadable;
    // Compare up to the terminator, or up to the bytes read when a non-text
    // value has none.
    const std::size_t chars = std::min<std::size_t>(size / sizeof(wchar_t), name.size());
    const std::wstring_view text(
        name.data(), static_cast<std::size_t>(std::find(name.begin(), name.begin() + chars, L'\0') -
                                              name.begin()));
    return text == L"Kestrix Platform" ? PlatformKtx : PlatformVbq;
}

}  // namespace

int getPlatform() {
    int answer = cachedPlatform.load(std::memory_order_relaxed);
    if (answer != PlatformUndetermined) return answer;
    cachedPlatform.store(PlatformUnreadable, std::memory_order_relaxed);
    answer = readPlatform();
    cachedPlatform.store(answer, std::memory_order_relaxed);
    return answer;
}

void resetPlatformForTest() {
    cachedPlatform.store(PlatformUndetermined, std::memory_order_relaxed);
}
