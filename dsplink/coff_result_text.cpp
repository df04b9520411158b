#include "dsplink/coff_result_text.h"

#include "dsplink/coff_reader.h"

std::wstring coffResultText(int result) {
    switch (result) {
        case 0:
            return L"";
        case kCoffOpenFailed:
            return L"the file cannot be opened";
        case kCoffEmpty:
            return L"the file is empty";
        case kCoffStreamFailed:
            return L"the file cannot be opened for reading";
        case kCoffHeaderUnreadable:
            return L"the file header is cut short";
        case kCoffNotC6000:
            return L"not a TI C6000 COFF file (target ID)";
        case kCoffSeekFailed:
            return L"a section's data pointer lies past the end of the file";
        case kCoffAllocFailed:
            return L"no memory for a section";
        case kCoffSectionUnreadable:
            return L"a section's data runs past the end of the file";
        case kCoffTooManySections:
            return L"more sections with data than a boot can hold";
        case kCoffHeadersTruncated:
            return L"the section headers end before the declared count";
        default:
            return L"the image cannot be read";
    }
}
