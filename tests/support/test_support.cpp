#include "tests/support/test_support.h"

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "boards/error_log.h"
#include "platform/files.h"
#include "platform/registry.h"
#include "platform/socket.h"
#include "platform/text.h"

namespace fs = std::filesystem;

namespace testing_support {

TempUnitRoot::TempUnitRoot() {
    std::random_device rd;
    fs::path base =
        fs::temp_directory_path() / ("tovel-test-" + std::to_string(rd()) + std::to_string(rd()));
    fs::create_directories(base);
    path_ = base.string();
    closeLogFileForShutdown();
    host::setUnitRoot(path_);
    host::reloadRegistry();
    // The flash disk of a unit has its user folder; the log folder itself is
    // made by the first log line.
    fs::create_directories(base / "FlashFx Disk2" / "Orvane" / "Users" / "Admin");
}

TempUnitRoot::~TempUnitRoot() {
    closeLogFileForShutdown();
    host::reloadRegistry();
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::string TempUnitRoot::hostPath(const std::wstring& originalPath) const {
    return host::mapPath(originalPath);
}

void TempUnitRoot::writeFile(const std::wstring& originalPath, const std::string& bytes) const {
    fs::path p = hostPath(originalPath);
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string TempUnitRoot::readFile(const std::wstring& originalPath) const {
    std::ifstream in(hostPath(originalPath), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void TempUnitRoot::namePlatform(const std::string& name) const {
    writeFile(L"\\registry.reg",
              "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Platform]\r\n\"Name\"=\"" + name + "\"\r\n");
    host::reloadRegistry();
}

DebugCapture::DebugCapture() {
    previous_ = host::setDebugSink([this](const std::wstring& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        texts_.push_back(text);
    });
}

DebugCapture::~DebugCapture() {
    host::setDebugSink(previous_);
}

std::vector<std::wstring> DebugCapture::texts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
}

std::wstring DebugCapture::all() const {
    std::wstring out;
    for (const auto& t : texts()) out += t;
    return out;
}

bool DebugCapture::contains(const std::wstring& fragment) const {
    return all().find(fragment) != std::wstring::npos;
}

std::vector<std::wstring> logLinesOf(const std::string& hostFile) {
    std::ifstream in(hostFile, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    std::string bytes = ss.str();
    std::wstring text =
        host::fromUtf16le(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    std::vector<std::wstring> lines;
    std::size_t start = 0;
    for (;;) {
        std::size_t end = text.find(L"\r\n", start);
        if (end == std::wstring::npos) break;
        std::wstring line = text.substr(start, end - start);
        // Drop the "MM/DD/YYYY hh:mm:ss " stamp when the line has one.
        if (line.size() >= 20 && line[2] == L'/' && line[5] == L'/') {
            std::size_t space = line.find(L' ');
            if (space != std::wstring::npos) space = line.find(L' ', space + 1);
            if (space != std::wstring::npos) line = line.substr(space + 1);
        }
        lines.push_back(line);
        start = end + 2;
    }
    return lines;
}

std::vector<std::wstring> logLines(bool includeOld) {
    std::string folder = host::mapPath(logFolder);
    std::vector<std::wstring> lines;
    if (includeOld) lines = logLinesOf(folder + "/usb.log.old");
    auto current = logLinesOf(folder + "/usb.log");
    lines.insert(lines.end(), current.begin(), current.end());
    return lines;
}

int logCount(const std::wstring& fragment) {
    int n = 0;
    for (const auto& line : logLines())
        if (line.find(fragment) != std::wstring::npos) ++n;
    return n;
}

bool logContains(const std::wstring& fragment) {
    return logCount(fragment) > 0;
}

std::vector<std::uint16_t> freePorts(int count) {
    std::vector<host::SOCKET> held;
    std::vector<std::uint16_t> ports;
    for (int i = 0; i < count; ++i) {
        host::SOCKET s = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
        const auto address = host::makeSockaddr(host::INADDR_LOOPBACK, 0);
        host::bind(s, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address);
        ports.push_back(host::localPort(s));
        held.push_back(s);
    }
    for (auto s : held) host::closesocket(s);
    return ports;
}

}  // namespace testing_support
