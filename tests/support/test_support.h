#pragma once
// Helpers shared by the test suites: a temporary unit root, captured debug
// output, and the event log read back as text lines.
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/debug_out.h"

namespace testing_support {

// Creates a fresh unit root folder under the system's temporary folder with
// the flash disk's user folder in it, makes it the host's unit root, and removes it again on
// destruction.
class TempUnitRoot {
  public:
    TempUnitRoot();
    ~TempUnitRoot();
    TempUnitRoot(const TempUnitRoot&) = delete;
    TempUnitRoot& operator=(const TempUnitRoot&) = delete;

    const std::string& path() const { return path_; }
    // Host path of a file named by an original path.
    std::string hostPath(const std::wstring& originalPath) const;
    void writeFile(const std::wstring& originalPath, const std::string& bytes) const;
    std::string readFile(const std::wstring& originalPath) const;
    // A registry that names only the platform, loaded at once.
    void namePlatform(const std::string& name) const;

  private:
    std::string path_;
};

// Collects everything written to the debug output while it lives.
class DebugCapture {
  public:
    DebugCapture();
    ~DebugCapture();
    std::vector<std::wstring> texts() const;
    std::wstring all() const;
    bool contains(const std::wstring& fragment) const;

  private:
    mutable std::mutex mutex_;
    std::vector<std::wstring> texts_;
    host::DebugSink previous_;
};

// The bytes of a host file; empty when it cannot be read.
std::string fileText(const std::string& hostFile);

// Distinct ports, free a moment ago, outside the range the kernel hands out.
std::vector<std::uint16_t> freePorts(int count);

// The entries of usb.log (and of a given file), decoded from UTF-16LE and
// split at CR LF, time stamps removed ("MM/DD/YYYY hh:mm:ss " prefix).
std::vector<std::wstring> logLines(bool includeOld = false);
std::vector<std::wstring> logLinesOf(const std::string& hostFile);
// Whether any log entry contains `fragment`.
bool logContains(const std::wstring& fragment);
// How many entries contain `fragment`.
int logCount(const std::wstring& fragment);

}  // namespace testing_support
