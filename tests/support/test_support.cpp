#include "tests/support/test_support.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

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
    return fileText(hostPath(originalPath));
}

std::string fileText(const std::string& hostFile) {
    std::ifstream in(hostFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
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
    const std::string bytes = fileText(hostFile);
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

// Ports are drawn at random below the kernel's ephemeral range (32768 and up
// by default): a port handed out by bind(0) can be given to some other test's
// outgoing connection, or to a parallel test's bind(0), in the moment between
// this check and the program's own bind. Each pick is checked by binding it.
std::vector<std::uint16_t> freePorts(int count) {
    static std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> below(20000, 32000);
    std::vector<std::uint16_t> ports;
    for (int tries = 0; static_cast<int>(ports.size()) < count && tries < 1000; ++tries) {
        const auto port = static_cast<std::uint16_t>(below(random));
        if (std::find(ports.begin(), ports.end(), port) != ports.end()) continue;
        host::SOCKET s = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
        const auto address = host::makeSockaddr(host::INADDR_ANY, port);
        const bool free =
            host::bind(s, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address) == 0;
        host::closesocket(s);
        if (free) ports.push_back(port);
    }
    return ports;
}

}  // namespace testing_support
