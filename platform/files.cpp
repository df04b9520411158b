#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/last_error.h"
#include "platform/no_destructor.h"
#include "platform/stream_object.h"
#include "platform/text.h"

namespace fs = std::filesystem;

namespace host {
namespace {

struct Root {
    std::mutex mutex;
    std::string folder = "unit";
};

Root& root() {
    static NoDestructor<Root> r;
    return *r;
}

DWORD errnoToError(int e) {
    switch (e) {
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
            return ERROR_PATH_NOT_FOUND;
        case EACCES:
        case EPERM:
        case EISDIR:
            return ERROR_ACCESS_DENIED;
        case EEXIST:
            return ERROR_FILE_EXISTS;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EBADF:
            return ERROR_INVALID_HANDLE;
        case EINVAL:
            return ERROR_INVALID_PARAMETER;
        default:
            return ERROR_GEN_FAILURE;
    }
}

// Opens in this process, by host path, for the share-mode rules.
struct OpenRecord {
    DWORD access;
    DWORD share;
};
struct ShareTable {
    std::mutex mutex;
    std::map<std::string, std::vector<std::pair<const void*, OpenRecord>>> opens;
};
ShareTable& shares() {
    static NoDestructor<ShareTable> t;
    return *t;
}

bool conflicts(const OpenRecord& a, const OpenRecord& b) {
    auto reads = [](DWORD access) { return (access & GENERIC_READ) != 0; };
    auto writes = [](DWORD access) { return (access & GENERIC_WRITE) != 0; };
    return (reads(a.access) && !(b.share & FILE_SHARE_READ)) ||
           (writes(a.access) && !(b.share & FILE_SHARE_WRITE)) ||
           (reads(b.access) && !(a.share & FILE_SHARE_READ)) ||
           (writes(b.access) && !(a.share & FILE_SHARE_WRITE));
}

class FileObject final : public StreamObject {
  public:
    FileObject(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    ~FileObject() override { release(); }

    int fd() const { return fd_; }
    bool read(void* buffer, DWORD size, DWORD* done, DWORD& error) override {
        ssize_t n;
        do n = ::read(fd_, buffer, size);
        while (n < 0 && errno == EINTR);
        if (n < 0) {
            error = errnoToError(errno);
            return false;
        }
        if (done) *done = static_cast<DWORD>(n);
        return true;
    }
    bool write(const void* buffer, DWORD size, DWORD* done, DWORD& error) override {
        const char* p = static_cast<const char*>(buffer);
        DWORD left = size;
        while (left > 0) {
            ssize_t n = ::write(fd_, p, left);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                error = errno == ENOSPC ? ERROR_GEN_FAILURE : errnoToError(errno);
                if (done) *done = size - left;
                return false;
            }
            p += n;
            left -= static_cast<DWORD>(n);
        }
        if (done) *done = size;
        return true;
    }
    void onClose() override { release(); }

  private:
    void release() {
        if (fd_ < 0) return;
        ::close(fd_);
        fd_ = -1;
        auto& t = shares();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto& list = t.opens[path_];
        std::erase_if(list, [this](const auto& entry) { return entry.first == this; });
        if (list.empty()) t.opens.erase(path_);
    }
    int fd_;
    std::string path_;
};

// Finds an entry of `dir` whose name equals `component` without regard to
// case; none when `dir` has no such entry (or is no directory).
std::optional<std::string> matchComponent(const fs::path& dir, const std::wstring& component) {
    std::error_code ec;
    if (fs::exists(dir / narrow(component), ec)) return narrow(component);
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (iequals(widen(name), component)) return name;
    }
    return std::nullopt;
}

std::string hostPathOf(const wchar_t* path) {
    return path ? mapPath(path) : std::string();
}

}  // namespace

void setUnitRoot(const std::string& hostFolder) {
    std::lock_guard<std::mutex> lock(root().mutex);
    root().folder = hostFolder;
}

std::string unitRoot() {
    std::lock_guard<std::mutex> lock(root().mutex);
    return root().folder;
}

std::string mapPath(const std::wstring& originalPath) {
    fs::path result = unitRoot();
    std::wstring component;
    // Below a folder that does not exist nothing does: the rest of the path
    // is taken as written, without looking (a failing open stays cheap).
    std::size_t missingDepth = 0;
    auto flush = [&] {
        if (component.empty() || component == L".") {
            component.clear();
            return;
        }
        if (component == L"..") {
            // Never climb out of the unit root.
            if (result != fs::path(unitRoot())) result = result.parent_path();
            if (missingDepth > 0) --missingDepth;
        } else if (missingDepth > 0) {
            result /= narrow(component);
            ++missingDepth;
        } else if (auto name = matchComponent(result, component)) {
            result /= *name;
        } else {
            result /= narrow(component);
            missingDepth = 1;
        }
        component.clear();
    };
    for (wchar_t c : originalPath) {
        if (c == L'\\' || c == L'/')
            flush();
        else
            component += c;
    }
    flush();
    return result.string();
}

HANDLE CreateFileW(const wchar_t* name, DWORD access, DWORD shareMode, DWORD creation,
                   DWORD flags) {
    (void)flags;
    if (!name) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    if (isDeviceName(name)) return openDevice(name, access, shareMode);

    std::string path = hostPathOf(name);
    int oflags = O_CLOEXEC;
    if ((access & GENERIC_READ) && (access & GENERIC_WRITE))
        oflags |= O_RDWR;
    else if (access & GENERIC_WRITE)
        oflags |= O_WRONLY;
    else
        oflags |= O_RDONLY;
    switch (creation) {
        case CREATE_NEW:
            oflags |= O_CREAT | O_EXCL;
            break;
        case CREATE_ALWAYS:
            oflags |= O_CREAT | O_TRUNC;
            break;
        case OPEN_EXISTING:
            break;
        case OPEN_ALWAYS:
            oflags |= O_CREAT;
            break;
        case TRUNCATE_EXISTING:
            oflags |= O_TRUNC;
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return INVALID_HANDLE_VALUE;
    }
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }

    auto& t = shares();
    std::unique_lock<std::mutex> lock(t.mutex);
    const OpenRecord mine{access, shareMode};
    auto& list = t.opens[path];
    for (const auto& [owner, other] : list) {
        if (conflicts(mine, other)) {
            if (list.empty()) t.opens.erase(path);
            SetLastError(ERROR_SHARING_VIOLATION);
            return INVALID_HANDLE_VALUE;
        }
    }
    int fd = ::open(path.c_str(), oflags, 0644);
    if (fd < 0) {
        DWORD error = errnoToError(errno);
        if (list.empty()) t.opens.erase(path);
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    auto object = std::make_shared<FileObject>(fd, path);
    list.emplace_back(object.get(), mine);
    lock.unlock();
    SetLastError(0);
    return addHandle(std::move(object));
}

BOOL ReadFile(HANDLE h, void* buffer, DWORD toRead, DWORD* read) {
    if (read) *read = 0;
    auto s = lookupAs<StreamObject>(h);
    if (!s) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE_;
    }
    DWORD error = 0;
    if (!s->read(buffer, toRead, read, error)) {
        SetLastError(error);
        return FALSE_;
    }
    return TRUE_;
}

BOOL WriteFile(HANDLE h, const void* buffer, DWORD toWrite, DWORD* written) {
    if (written) *written = 0;
    auto s = lookupAs<StreamObject>(h);
    if (!s) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE_;
    }
    DWORD error = 0;
    if (!s->write(buffer, toWrite, written, error)) {
        SetLastError(error);
        return FALSE_;
    }
    return TRUE_;
}

DWORD SetFilePointer(HANDLE h, LONG distance, DWORD method) {
    auto f = lookupAs<FileObject>(h);
    if (!f) {
        SetLastError(ERROR_INVALID_HANDLE);
        return INVALID_SET_FILE_POINTER;
    }
    int whence = method == FILE_BEGIN ? SEEK_SET : method == FILE_CURRENT ? SEEK_CUR : SEEK_END;
    off_t pos = ::lseek(f->fd(), distance, whence);
    if (pos < 0 || pos > 0xFFFFFFFEll) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    SetLastError(0);
    return static_cast<DWORD>(pos);
}

DWORD GetFileSize(HANDLE h) {
    auto f = lookupAs<FileObject>(h);
    if (!f) {
        SetLastError(ERROR_INVALID_HANDLE);
        return INVALID_FILE_SIZE;
    }
    struct stat st {};
    if (::fstat(f->fd(), &st) != 0) {
        SetLastError(errnoToError(errno));
        return INVALID_FILE_SIZE;
    }
    SetLastError(0);
    return st.st_size > 0xFFFFFFFEll ? INVALID_FILE_SIZE : static_cast<DWORD>(st.st_size);
}

// Writes go straight to the operating system, so there is nothing buffered
// in this process to flush.
BOOL FlushFileBuffers(HANDLE h) {
    if (!lookupAs<FileObject>(h)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE_;
    }
    return TRUE_;
}

DWORD GetFileAttributesW(const wchar_t* path) {
    struct stat st {};
    if (!path || ::stat(hostPathOf(path).c_str(), &st) != 0) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_FILE_ATTRIBUTES;
    }
    return S_ISDIR(st.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
}

BOOL CreateDirectoryW(const wchar_t* path) {
    if (!path || ::mkdir(hostPathOf(path).c_str(), 0755) != 0) {
        SetLastError(path ? (errno == EEXIST ? ERROR_ALREADY_EXISTS : errnoToError(errno))
                          : ERROR_INVALID_PARAMETER);
        return FALSE_;
    }
    return TRUE_;
}

BOOL DeleteFileW(const wchar_t* path) {
    if (!path || ::unlink(hostPathOf(path).c_str()) != 0) {
        SetLastError(path ? errnoToError(errno) : ERROR_INVALID_PARAMETER);
        return FALSE_;
    }
    return TRUE_;
}

BOOL MoveFileW(const wchar_t* from, const wchar_t* to) {
    if (!from || !to) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE_;
    }
    std::string target = hostPathOf(to);
    struct stat st {};
    if (::stat(target.c_str(), &st) == 0) {
        SetLastError(ERROR_ALREADY_EXISTS);  // MoveFile never replaces
        return FALSE_;
    }
    if (::rename(hostPathOf(from).c_str(), target.c_str()) != 0) {
        SetLastError(errnoToError(errno));
        return FALSE_;
    }
    return TRUE_;
}

BOOL ReplaceFileW(const wchar_t* replaced, const wchar_t* replacement, const wchar_t* backup) {
    if (!replaced || !replacement) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE_;
    }
    const std::string target = hostPathOf(replaced);
    const std::string source = hostPathOf(replacement);
    struct stat st {};
    if (::stat(source.c_str(), &st) != 0) {
        SetLastError(errnoToError(errno));
        return FALSE_;
    }
    if (backup && ::stat(target.c_str(), &st) == 0) {
        // A second name for the old file keeps it in place until the
        // replacement lands; where hard links are refused, the old file
        // moves to the backup name first and the target is briefly absent.
        const std::string kept = hostPathOf(backup);
        ::unlink(kept.c_str());
        if (::link(target.c_str(), kept.c_str()) != 0 &&
            ::rename(target.c_str(), kept.c_str()) != 0) {
            SetLastError(errnoToError(errno));
            return FALSE_;
        }
    }
    if (::rename(source.c_str(), target.c_str()) != 0) {
        SetLastError(errnoToError(errno));
        return FALSE_;
    }
    return TRUE_;
}

}  // namespace host
