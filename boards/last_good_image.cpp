#include "boards/last_good_image.h"

#include "boards/kind_image.h"
#include "boards/usb_ctlr.h"
#include "dsplink/coff_reader.h"
#include "dsplink/coff_result_text.h"
#include "platform/files.h"
#include "platform/last_error.h"
#include "platform/text.h"

namespace {

// Failures that a different image can cure. A link that cannot carry the
// boot frames (11, 12, 13) says nothing about the image, and trying another
// one would only mark a good image failed.
bool imageAtFault(dspStatus s) {
    return (s >= kCoffOpenFailed && s <= kCoffHeadersTruncated) || s == dspBootNotRunning ||
           s == dspWrongCofVersion;
}

std::wstring reasonText(dspStatus s) {
    if (s >= kCoffOpenFailed && s <= kCoffHeadersTruncated) return coffResultText(s);
    return dspStatusText(s);
}

std::wstring fileNameOf(const std::wstring& path) {
    return path.substr(path.find_last_of(L'\\') + 1);
}

}  // namespace

dspStatus bootWithLastGoodImage(UsbCtlr& ctlr) {
    const KindImage files(ctlr.getCofFileName());
    // Held across the boots, so that a download that completes meanwhile is
    // neither taken for the failed image nor overwritten by the fallback.
    std::lock_guard<std::mutex> lock(imageFilesLock());
    const dspStatus first = ctlr.boot();
    if (first == dspOk || !imageAtFault(first) || !KindImage::exists(files.previous()))
        return first;

    const std::wstring image = files.name();
    const std::wstring previous = fileNameOf(files.previous());
    const std::wstring failed = fileNameOf(files.failed());
    ctlr.logMsg(host::wformat(
        L"UsbCtlr::bootLastGoodImage '%s' does not boot (status %d: %s); booting the previous "
        L"image '%s' in its place, the failed one is kept as '%s'",
        image.c_str(), static_cast<int>(first), reasonText(first).c_str(), previous.c_str(),
        failed.c_str()));
    // The previous image takes the kind's name, so later boots and downloads
    // see an ordinary install folder: the image, and the failed one aside.
    if (!host::ReplaceFileW(files.image().c_str(), files.previous().c_str(),
                            files.failed().c_str())) {
        ctlr.logMsg(host::wformat(L"UsbCtlr::bootLastGoodImage cannot put '%s' in place (error %u)",
                                  previous.c_str(), static_cast<unsigned>(host::GetLastError())));
        return first;
    }
    const dspStatus second = ctlr.boot();
    if (second == dspOk) {
        ctlr.logMsg(host::wformat(
            L"UsbCtlr::bootLastGoodImage booted the previous image, now '%s'; upload a good "
            L"image to replace it",
            image.c_str()));
        return dspOk;
    }
    ctlr.logMsg(host::wformat(
        L"UsbCtlr::bootLastGoodImage the previous image does not boot either (status %d: %s); "
        L"the board is at fault, the images are put back",
        static_cast<int>(second), reasonText(second).c_str()));
    host::ReplaceFileW(files.image().c_str(), files.failed().c_str(), files.previous().c_str());
    return first;
}
