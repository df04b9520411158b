#include "server/cof_download.h"

#include <memory>
#include <mutex>

#include "app/message_channels.h"
#include "dsplink/coff_reader.h"
#include "dsplink/coff_result_text.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/text.h"

bool CofDownload::open(const std::wstring& fileName) {
    abandon();
    KindImage files(fileName);
    // Exclusive: a second session's download of this kind fails here, and
    // never empties this session's file.
    file_ =
        host::CreateFileW(files.download().c_str(), host::GENERIC_WRITE, 0, host::CREATE_ALWAYS);
    if (file_ == INVALID_HANDLE_VALUE) return false;
    files_ = std::move(files);
    return true;
}

bool CofDownload::write(const std::uint8_t* data, std::uint32_t size) {
    DWORD written = 0;
    return host::WriteFile(file_, data, size, &written) && written == size;
}

void CofDownload::commit() {
    if (!isOpen()) return;
    const KindImage files = *files_;
    DWORD error = 0;
    {
        std::lock_guard<std::mutex> lock(imageFilesLock());
        // Renamed while still held, so no other session can open the partial
        // name between the last write and the replacement.
        if (!host::ReplaceFileW(files.image().c_str(), files.download().c_str(),
                                files.previous().c_str()))
            error = host::GetLastError();
    }
    if (error != 0) {
        abandon();
        statusMessage(host::wformat(
            L"COF DOWNLOAD: '%s' could not replace the image (%s); the image is unchanged!\n",
            files.name().c_str(), host::FormatMessageText(error).value_or(L"?").c_str()));
        return;
    }
    host::CloseHandle(file_);
    file_ = INVALID_HANDLE_VALUE;
    files_.reset();
    checkStoredImage(files);
}

void CofDownload::checkStoredImage(const KindImage& files) {
    // The reader writes its own reason to the event log; this line says what
    // it means for the board.
    auto sections = std::make_unique<CoffSectionTable>();
    int count = 0;
    const int result = readCoffImage(files.image(), *sections, count);
    if (result == 0) return;
    statusMessage(host::wformat(
        L"COF DOWNLOAD: '%s' is stored but will not boot: %s (COFF reader result %d)!\n",
        files.name().c_str(), coffResultText(result).c_str(), result));
}

void CofDownload::abandon() {
    if (!isOpen()) return;
    // Removed while still held, so the name is never another session's file.
    host::DeleteFileW(files_->download().c_str());
    host::CloseHandle(file_);
    file_ = INVALID_HANDLE_VALUE;
    files_.reset();
}
