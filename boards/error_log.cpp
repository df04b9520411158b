#include "boards/error_log.h"

#include <memory>

#include "platform/clock.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/text.h"

const std::wstring logFolder = L"\\FlashFx Disk2\\Orvane\\Users\\Admin\\SystemLogs";
const std::wstring installFolder = L"\\Program Files\\Orvane Instruments\\480";

namespace {

constexpr const wchar_t* kLogName = L"usb.log";

// The open log file. It is kept even when the open failed: writes to it then
// fail quietly until the next rotation or shutdown.
struct LogFile {
    HANDLE handle = INVALID_HANDLE_VALUE;
    ~LogFile() {
        if (handle != INVALID_HANDLE_VALUE) host::CloseHandle(handle);
    }
};

std::unique_ptr<LogFile> logFile GUARDED_BY(logLock());
int linesSinceSizeCheck GUARDED_BY(logLock()) = 0;

std::wstring logPath() {
    return logFolder + L"\\" + kLogName;
}

void openLogFile() REQUIRES(logLock()) {
    logFile = std::make_unique<LogFile>();
    DWORD attributes = host::GetFileAttributesW(logFolder.c_str());
    if (attributes == host::INVALID_FILE_ATTRIBUTES ||
        !(attributes & host::FILE_ATTRIBUTE_DIRECTORY))
        host::CreateDirectoryW(logFolder.c_str());
    logFile->handle =
        host::CreateFileW(logPath().c_str(), host::GENERIC_READ | host::GENERIC_WRITE,
                          host::FILE_SHARE_READ | host::FILE_SHARE_WRITE, host::OPEN_ALWAYS);
}

}  // namespace

host::CriticalSection& logLock() {
    static host::CriticalSection lock;
    return lock;
}

void LogError(std::wstring msg) {
    host::LockGuard guard(logLock());
    try {
        host::SYSTEMTIME now{};
        host::GetLocalTime(&now);
        std::wstring line = host::wformat(L"%02d/%02d/%d %02d:%02d:%02d ", now.wMonth, now.wDay,
                                          now.wYear, now.wHour, now.wMinute, now.wSecond) +
                            msg + L"\r\n";
        if (!logFile) openLogFile();
        host::SetFilePointer(logFile->handle, 0, host::FILE_END);
        auto bytes = host::toUtf16le(line);
        DWORD written = 0;
        host::WriteFile(logFile->handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written);
        host::FlushFileBuffers(logFile->handle);
        if (++linesSinceSizeCheck > eventlog::kLinesPerSizeCheck) {
            linesSinceSizeCheck = 0;
            eventlog::ManageLogSize();
        }
    } catch (...) {
        // Logging never stops the caller; the line is lost.
    }
}

namespace eventlog {

void ManageLogSize() {
    host::LockGuard guard(logLock());
    try {
        if (!logFile) return;
        DWORD size = host::GetFileSize(logFile->handle);
        if (size == host::INVALID_FILE_SIZE || size <= kRotateAbove) return;
        const std::wstring full = logPath();
        logFile.reset();
        const std::wstring old = full + L".old";
        host::DeleteFileW(old.c_str());
        host::MoveFileW(full.c_str(), old.c_str());
    } catch (...) {
        // The size check is simply skipped until the next one.
    }
}

}  // namespace eventlog

void closeLogFileForShutdown() {
    host::LockGuard guard(logLock());
    logFile.reset();
}

std::wstring FormatError() {
    const DWORD code = host::GetLastError();
    if (auto text = host::FormatMessageText(code)) {
        host::SetLastError(0);
        return *text;
    }
    return host::wformat(L"Unable to get error string for %u (FormatError fails due to error #%u)!",
                         code, host::GetLastError());
}
