#pragma once
// The files of one board kind's DSP image in the install folder:
//   t1.cof         the image every boot of a T1 board loads
//   t1.cof.part    a download in progress (held exclusively by its session)
//   t1.cof.prev    the image the last completed download replaced
//   t1.cof.failed  an image that did not boot at enumeration, kept for inspection
// Downloads and the enumeration's fallback to the previous image rename these
// files under one lock, so neither sees the other half done.
#include <mutex>
#include <string>

class KindImage {
  public:
    // `fileName` is the kind's image name without folder ("t1.cof").
    explicit KindImage(std::wstring fileName) : name_(std::move(fileName)) {}

    const std::wstring& name() const { return name_; }
    std::wstring image() const { return path(L""); }
    std::wstring download() const { return path(kDownloadSuffix); }
    std::wstring previous() const { return path(kPreviousSuffix); }
    std::wstring failed() const { return path(kFailedSuffix); }

    static bool exists(const std::wstring& path);

    static constexpr const wchar_t* kDownloadSuffix = L".part";
    static constexpr const wchar_t* kPreviousSuffix = L".prev";
    static constexpr const wchar_t* kFailedSuffix = L".failed";

  private:
    std::wstring path(const wchar_t* suffix) const;
    std::wstring name_;
};

// Held while the image files of any kind are renamed (and across the boots
// that decide such a rename). Lock order: after registryLock and the links
// held by a scan, before the link of the board being booted and the log.
std::mutex& imageFilesLock();
