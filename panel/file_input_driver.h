#pragma once
// FileInputDriver: feeds a MultiDigitalInput from lines that are read from
// separate device files, one file per line (line 0 first). It starts reading
// 9 s after it is made, then polls every `period` ms and sets the point
// whenever the word of lines changes.
#include <string>
#include <vector>

#include "panel/io_driver.h"

class MultiDigitalInput;

class FileInputDriver final : public IODriver {
  public:
    static constexpr DWORD startDelayMs = 9000;
    static constexpr std::size_t maxLines = 32;  // one bit of the word each

    // Names beyond the 32nd are not read.
    FileInputDriver(std::vector<std::wstring> names, MultiDigitalInput* point, DWORD period);
    FileInputDriver(const wchar_t* const* names, int count, MultiDigitalInput* point, DWORD period);
    ~FileInputDriver() override;

    std::wstring name() const override;
    const std::vector<std::wstring>& names() const { return names_; }

  private:
    void run() override;
    // Bit i set when the first byte read from file i is nonzero.
    DWORD readAll();
    bool openAll();
    void closeAll();
    bool allOpen() const;

    MultiDigitalInput* const point_;
    const std::vector<std::wstring> names_;
    std::vector<HANDLE> handles_;  // only the driver's thread touches them
};
