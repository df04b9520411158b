#include "panel/file_input_driver.h"

#include <algorithm>

#include "panel/multi_digital_input.h"
#include "platform/files.h"
#include "platform/handles.h"

namespace {

std::vector<std::wstring> firstLines(std::vector<std::wstring> names) {
    if (names.size() > FileInputDriver::maxLines) names.resize(FileInputDriver::maxLines);
    return names;
}

std::vector<std::wstring> namesOf(const wchar_t* const* names, int count) {
    std::vector<std::wstring> list;
    for (int i = 0; names && i < count; ++i) list.emplace_back(names[i] ? names[i] : L"");
    return list;
}

}  // namespace

FileInputDriver::FileInputDriver(std::vector<std::wstring> names, MultiDigitalInput* point,
                                 DWORD period)
    : IODriver(period), point_(point), names_(firstLines(std::move(names))) {
    start();
}

FileInputDriver::FileInputDriver(const wchar_t* const* names, int count, MultiDigitalInput* point,
                                 DWORD period)
    : FileInputDriver(namesOf(names, count), point, period) {}

FileInputDriver::~FileInputDriver() {
    halt();
}

std::wstring FileInputDriver::name() const {
    std::wstring text;
    for (const auto& name : names_) {
        if (!text.empty()) text += L", ";
        text += name;
    }
    // The name fits the 128-character buffer it was always given.
    if (text.size() > 127) text.resize(127);
    return text;
}

void FileInputDriver::run() {
    ready();
    if (!pause(startDelayMs)) return;
    if (openAll()) {
        do {
            const DWORD bits = readAll();
            if (bits != lastBits_.load()) {
                lastBits_ = bits;
                if (point_) point_->setValue(static_cast<int>(bits));
            }
        } while (pause(period()));
    }
    closeAll();
}

DWORD FileInputDriver::readAll() {
    DWORD bits = 0;
    for (std::size_t i = 0; i < handles_.size(); ++i) {
        unsigned char level[2] = {0, 0};
        DWORD read = 0;
        // Device files answer the current level at every read; a plain file
        // standing in for one is read from its start each time.
        host::SetFilePointer(handles_[i], 0, host::FILE_BEGIN);
        if (host::ReadFile(handles_[i], level, sizeof level, &read) && read > 0 && level[0] != 0)
            bits |= DWORD{1} << i;
    }
    return bits;
}

bool FileInputDriver::openAll() {
    for (const auto& name : names_)
        handles_.push_back(host::CreateFileW(name.c_str(), host::GENERIC_READ, 0,
                                             host::OPEN_EXISTING, host::FILE_ATTRIBUTE_NORMAL));
    return allOpen();
}

void FileInputDriver::closeAll() {
    for (HANDLE h : handles_)
        if (h != INVALID_HANDLE_VALUE) host::CloseHandle(h);
    handles_.clear();
}

bool FileInputDriver::allOpen() const {
    return std::none_of(handles_.begin(), handles_.end(),
                        [](HANDLE h) { return h == INVALID_HANDLE_VALUE; });
}
