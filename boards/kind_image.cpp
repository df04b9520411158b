#include "boards/kind_image.h"

#include "boards/error_log.h"
#include "platform/files.h"
#include "platform/no_destructor.h"

std::wstring KindImage::path(const wchar_t* suffix) const {
    return installFolder + L"\\" + name_ + suffix;
}

bool KindImage::exists(const std::wstring& path) {
    return host::GetFileAttributesW(path.c_str()) == host::FILE_ATTRIBUTE_NORMAL;
}

std::mutex& imageFilesLock() {
    static NoDestructor<std::mutex> lock;
    return *lock;
}
