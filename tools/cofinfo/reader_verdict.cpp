#include "tools/cofinfo/reader_verdict.h"

#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

#include "boards/error_log.h"
#include "platform/debug_out.h"
#include "platform/files.h"
#include "platform/text.h"

namespace cofinfo {
namespace {

namespace fs = std::filesystem;

class ScratchRoot {
  public:
    ScratchRoot() {
        std::random_device random;
        std::ostringstream name;
        name << "cofinfo-" << std::hex << random() << random();
        path_ = fs::temp_directory_path() / name.str();
        fs::create_directories(path_);
    }
    ~ScratchRoot() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);  // removes the link, never the linked file
    }
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

// "MM/DD/YYYY hh:mm:ss " in front of every event log line.
std::wstring withoutTimeStamp(const std::wstring& line) {
    const bool stamped = line.size() >= 20 && line[2] == L'/' && line[5] == L'/' &&
                         line[13] == L':' && line[16] == L':' && line[19] == L' ';
    return stamped ? line.substr(20) : line;
}

std::vector<std::wstring> eventLogLines(const std::string& hostFile) {
    std::ifstream in(hostFile, std::ios::binary);
    const std::vector<unsigned char> bytes{std::istreambuf_iterator<char>(in),
                                           std::istreambuf_iterator<char>()};
    const std::wstring text = host::fromUtf16le(bytes.data(), bytes.size());
    std::vector<std::wstring> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(L'\n', start);
        if (end == std::wstring::npos) end = text.size();
        std::wstring line = text.substr(start, end - start);
        if (!line.empty() && line.back() == L'\r') line.pop_back();
        if (!line.empty()) lines.push_back(withoutTimeStamp(line));
        start = end + 1;
    }
    return lines;
}

}  // namespace

ReaderVerdict runReader(const fs::path& hostFile) {
    const fs::path absolute = fs::absolute(hostFile).lexically_normal();
    ScratchRoot root;
    const fs::path inside = root.path() / absolute.relative_path();
    fs::create_directories(inside.parent_path());
    std::error_code failed;
    fs::create_symlink(absolute, inside, failed);
    if (failed && fs::exists(absolute)) fs::copy_file(absolute, inside, failed);

    const std::string previousRoot = host::unitRoot();
    host::setUnitRoot(root.path().string());
    const std::string logFile = host::mapPath(logFolder + L"\\usb.log");
    fs::create_directories(fs::path(logFile).parent_path(), failed);
    // The reader's lines are collected from the log; keep them off stderr.
    const host::DebugSilence silence;

    ReaderVerdict verdict;
    verdict.result = readCoffImage(host::widen(absolute.generic_string()), verdict.sections,
                                   verdict.sectionCount);
    closeLogFileForShutdown();
    verdict.messages = eventLogLines(logFile);

    host::setUnitRoot(previousRoot);
    return verdict;
}

}  // namespace cofinfo
