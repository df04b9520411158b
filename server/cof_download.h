#pragma once
// One session's download of its board kind's DSP image. The bytes go to
// "<image>.part" beside the image, opened for exclusive access, so a second
// session that starts a download of the same kind fails to open it as it
// always did; the image itself stays in place (and bootable) until the
// download ends, when one rename puts the new file in its place and keeps
// the replaced image as "<image>.prev". A download that never ends leaves
// the image untouched and its partial file removed.
#include <cstdint>
#include <optional>
#include <string>

#include "boards/kind_image.h"
#include "platform/win_types.h"

class CofDownload {
  public:
    CofDownload() = default;
    ~CofDownload() { abandon(); }
    CofDownload(const CofDownload&) = delete;
    CofDownload& operator=(const CofDownload&) = delete;

    // Creates (or empties) the partial file of the image `fileName`
    // ("t1.cof"), held exclusively. False when it cannot be opened; the last
    // error tells why.
    bool open(const std::wstring& fileName);
    bool isOpen() const { return file_ != INVALID_HANDLE_VALUE; }
    // Appends at the end of what was written; false when the write fails.
    bool write(const std::uint8_t* data, std::uint32_t size);
    // Puts the written file in the image's place, keeping the replaced image
    // as the previous one, then reads it with the COFF reader: an image the
    // reader refuses is kept (the client may mean it), and the operator is
    // told at once why it will not boot.
    void commit();
    // Removes the partial file; the image is not touched. Nothing when no
    // download is open.
    void abandon();

  private:
    void checkStoredImage(const KindImage& files);

    std::optional<KindImage> files_;
    HANDLE file_ = INVALID_HANDLE_VALUE;
};
