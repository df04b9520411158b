#include "platform/registry.h"

#include <cstdio>
#include <cstring>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <vector>

#include "platform/debug_out.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/no_destructor.h"
#include "platform/text.h"

namespace host {
namespace {

constexpr const char* kRegistryFile = "registry.reg";
constexpr const wchar_t* kRootName = L"HKEY_LOCAL_MACHINE";

struct Value {
    std::wstring name;
    DWORD type = REG_NONE;
    std::vector<BYTE> bytes;  // REG_SZ: host wide characters including the NUL
};

struct Key {
    std::wstring name;                     // path below the root, as first spelled
    std::map<std::wstring, Value> values;  // by lower-cased name
};

std::wstring lowered(std::wstring s) {
    for (auto& c : s) c = static_cast<wchar_t>(std::towlower(c));
    return s;
}

std::wstring normalizedPath(std::wstring path) {
    for (auto& c : path)
        if (c == L'/') c = L'\\';
    while (!path.empty() && path.front() == L'\\') path.erase(path.begin());
    while (!path.empty() && path.back() == L'\\') path.pop_back();
    return path;
}

class RegKey final : public KernelObject {
  public:
    explicit RegKey(std::wstring path) : path(std::move(path)) {}
    const std::wstring path;
};

struct Registry {
    std::recursive_mutex mutex;
    bool loaded = false;
    bool broken = false;
    std::map<std::wstring, Key> keys;  // by lower-cased path
    // The file's bytes as last read or written (none: no file). The file is
    // small and rarely consulted, so comparing its bytes is the one test of
    // "changed" that no coarse time stamp or in-place edit can fool.
    std::optional<std::string> seen;

    std::string file() const { return unitRoot() + "/" + kRegistryFile; }
    std::optional<std::string> readFile() const;

    // Reads the file again when it changed since it was last read or written.
    void refresh();
    void load(const std::optional<std::string>& bytes);
    bool save();
    Key* find(const std::wstring& path) {
        auto it = keys.find(lowered(path));
        return it == keys.end() ? nullptr : &it->second;
    }
    Key& create(const std::wstring& path) {
        auto& key = keys[lowered(path)];
        if (key.name.empty()) key.name = path;
        return key;
    }
    void fail(int line, const std::string& why) {
        broken = true;
        NKDbgPrintfW(L"Registry file %S is malformed at line %d: %S; it is left untouched.\n",
                     file().c_str(), line, why.c_str());
    }
};

Registry& registry() {
    static NoDestructor<Registry> r;
    return *r;
}

std::vector<BYTE> wideBytes(const std::wstring& s) {
    std::vector<BYTE> bytes((s.size() + 1) * sizeof(wchar_t), 0);
    std::memcpy(bytes.data(), s.c_str(), s.size() * sizeof(wchar_t));
    return bytes;
}

std::wstring bytesWide(const std::vector<BYTE>& bytes) {
    std::wstring s(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(s.data(), bytes.data(), s.size() * sizeof(wchar_t));
    while (!s.empty() && s.back() == L'\0') s.pop_back();
    return s;
}

// Reads a quoted string starting at text[pos] == '"'; advances pos past it.
bool readQuoted(const std::wstring& text, std::size_t& pos, std::wstring& out) {
    if (pos >= text.size() || text[pos] != L'"') return false;
    ++pos;
    out.clear();
    while (pos < text.size()) {
        wchar_t c = text[pos++];
        if (c == L'"') return true;
        if (c == L'\\') {
            if (pos >= text.size()) return false;
            c = text[pos++];
        }
        out += c;
    }
    return false;
}

std::wstring trim(const std::wstring& s) {
    std::size_t b = 0, e = s.size();
    while (b < e && std::iswspace(s[b])) ++b;
    while (e > b && std::iswspace(s[e - 1])) --e;
    return s.substr(b, e - b);
}

std::optional<std::string> Registry::readFile() const {
    std::ifstream in(file(), std::ios::binary);
    if (!in) return std::nullopt;
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void Registry::refresh() {
    std::optional<std::string> bytes = readFile();
    if (loaded && bytes == seen) return;
    load(bytes);
}

void Registry::load(const std::optional<std::string>& bytes) {
    loaded = true;
    broken = false;
    keys.clear();
    seen = bytes;
    if (!bytes) return;  // no file yet: an empty registry
    std::wstring all = widen(*bytes);
    std::wistringstream lines(all);
    std::wstring line;
    int lineNo = 0;
    Key* current = nullptr;
    bool sawHeader = false;
    while (std::getline(lines, line)) {
        ++lineNo;
        line = trim(line);
        if (line.empty() || line[0] == L';') continue;
        if (!sawHeader) {
            if (line != L"REGEDIT4" && line != L"Windows Registry Editor Version 5.00")
                return fail(lineNo, "the first line must be REGEDIT4");
            sawHeader = true;
            continue;
        }
        if (line.front() == L'[') {
            if (line.back() != L']') return fail(lineNo, "a key line must end with ']'");
            std::wstring path = normalizedPath(line.substr(1, line.size() - 2));
            std::wstring rootName = kRootName;
            if (lowered(path.substr(0, rootName.size())) != lowered(rootName))
                return fail(lineNo, "only HKEY_LOCAL_MACHINE keys are kept");
            current = &create(normalizedPath(path.substr(rootName.size())));
            continue;
        }
        if (!current) return fail(lineNo, "a value before any key");
        std::size_t pos = 0;
        Value value;
        if (line[0] == L'@') {
            pos = 1;
        } else if (!readQuoted(line, pos, value.name)) {
            return fail(lineNo, "a value name must be quoted");
        }
        while (pos < line.size() && std::iswspace(line[pos])) ++pos;
        if (pos >= line.size() || line[pos] != L'=')
            return fail(lineNo, "'=' expected after the value name");
        std::wstring data = trim(line.substr(pos + 1));
        if (!data.empty() && data[0] == L'"') {
            std::size_t p = 0;
            std::wstring s;
            if (!readQuoted(data, p, s) || trim(data.substr(p)).size())
                return fail(lineNo, "bad string value");
            value.type = REG_SZ;
            value.bytes = wideBytes(s);
        } else if (lowered(data.substr(0, 6)) == L"dword:") {
            std::wstring hex = data.substr(6);
            if (hex.empty() || hex.size() > 8 ||
                hex.find_first_not_of(L"0123456789abcdefABCDEF") != std::wstring::npos)
                return fail(lineNo, "a dword needs 1 to 8 hex digits");
            DWORD v = static_cast<DWORD>(std::wcstoul(hex.c_str(), nullptr, 16));
            value.type = REG_DWORD;
            value.bytes.resize(4);
            std::memcpy(value.bytes.data(), &v, 4);
        } else if (lowered(data.substr(0, 4)) == L"hex:") {
            value.type = REG_BINARY;
            std::wstringstream hs(data.substr(4));
            std::wstring byte;
            while (std::getline(hs, byte, L',')) {
                byte = trim(byte);
                if (byte.empty() || byte.size() > 2 ||
                    byte.find_first_not_of(L"0123456789abcdefABCDEF") != std::wstring::npos)
                    return fail(lineNo, "bad hex byte");
                value.bytes.push_back(static_cast<BYTE>(std::wcstoul(byte.c_str(), nullptr, 16)));
            }
        } else {
            return fail(lineNo, "unknown value type");
        }
        current->values[lowered(value.name)] = std::move(value);
    }
    if (!sawHeader && !keys.empty()) fail(1, "missing REGEDIT4 header");
}

std::wstring quoted(const std::wstring& s) {
    std::wstring out = L"\"";
    for (wchar_t c : s) {
        if (c == L'"' || c == L'\\') out += L'\\';
        out += c;
    }
    return out + L"\"";
}

bool Registry::save() {
    std::wstring text = L"REGEDIT4\r\n";
    for (const auto& [lower, key] : keys) {
        text += L"\r\n[" + std::wstring(kRootName) + (key.name.empty() ? L"" : L"\\" + key.name) +
                L"]\r\n";
        for (const auto& [lowerName, value] : key.values) {
            text += value.name.empty() ? L"@" : quoted(value.name);
            text += L"=";
            if (value.type == REG_SZ) {
                text += quoted(bytesWide(value.bytes));
            } else if (value.type == REG_DWORD && value.bytes.size() == 4) {
                DWORD v;
                std::memcpy(&v, value.bytes.data(), 4);
                text += wformat(L"dword:%08x", v);
            } else {
                text += L"hex:";
                for (std::size_t i = 0; i < value.bytes.size(); ++i)
                    text += wformat(i ? L",%02x" : L"%02x", value.bytes[i]);
            }
            text += L"\r\n";
        }
    }
    std::string target = file();
    std::string temp = target + ".tmp";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        std::string bytes = narrow(text);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out.flush()) return false;
    }
    std::error_code ec;
    std::filesystem::rename(temp, target, ec);
    if (ec) return false;
    seen = narrow(text);
    return true;
}

// The registry with its file read, under its lock.
struct Session {
    Registry& r = registry();
    std::lock_guard<std::recursive_mutex> lock{r.mutex};
    Session() { r.refresh(); }
};

LONG keyPath(HKEY key, std::wstring* path) {
    if (key == HKEY_LOCAL_MACHINE) {
        path->clear();
        return ERROR_SUCCESS;
    }
    auto k = lookupAs<RegKey>(key);
    if (!k) return static_cast<LONG>(ERROR_INVALID_HANDLE);
    *path = k->path;
    return ERROR_SUCCESS;
}

std::wstring join(const std::wstring& a, const wchar_t* b) {
    std::wstring sub = normalizedPath(b ? b : L"");
    if (a.empty()) return sub;
    if (sub.empty()) return a;
    return a + L"\\" + sub;
}

}  // namespace

LONG RegOpenKeyExW(HKEY parent, const wchar_t* subKey, HKEY* result) {
    Session s;
    if (s.r.broken) return static_cast<LONG>(ERROR_BADKEY);
    std::wstring base;
    if (LONG rc = keyPath(parent, &base)) return rc;
    std::wstring path = join(base, subKey);
    Key* key = s.r.find(path);
    if (!key && !path.empty()) return static_cast<LONG>(ERROR_FILE_NOT_FOUND);
    *result = addHandle(std::make_shared<RegKey>(key ? key->name : path));
    return ERROR_SUCCESS;
}

LONG RegCreateKeyExW(HKEY parent, const wchar_t* subKey, HKEY* result, DWORD* disposition) {
    Session s;
    if (s.r.broken) return static_cast<LONG>(ERROR_BADKEY);
    std::wstring base;
    if (LONG rc = keyPath(parent, &base)) return rc;
    std::wstring path = join(base, subKey);
    bool existed = s.r.find(path) != nullptr;
    Key& key = s.r.create(path);
    // The unit's writes go to the file at once, so a later re-read of an edited
    // file cannot lose them.
    if (!existed && !s.r.save()) return static_cast<LONG>(ERROR_GEN_FAILURE);
    if (disposition)
        *disposition = existed ? 2 /*REG_OPENED_EXISTING_KEY*/ : 1 /*REG_CREATED_NEW_KEY*/;
    *result = addHandle(std::make_shared<RegKey>(key.name));
    return ERROR_SUCCESS;
}

LONG RegQueryValueExW(HKEY hkey, const wchar_t* name, DWORD* type, BYTE* data, DWORD* size) {
    Session s;
    if (s.r.broken) return static_cast<LONG>(ERROR_BADKEY);
    std::wstring path;
    if (LONG rc = keyPath(hkey, &path)) return rc;
    Key* key = s.r.find(path);
    if (!key) return static_cast<LONG>(ERROR_FILE_NOT_FOUND);
    auto it = key->values.find(lowered(name ? name : L""));
    if (it == key->values.end()) return static_cast<LONG>(ERROR_FILE_NOT_FOUND);
    const Value& v = it->second;
    if (type) *type = v.type;
    const DWORD needed = static_cast<DWORD>(v.bytes.size());
    if (data) {
        if (!size || *size < needed) {
            if (size) *size = needed;
            return static_cast<LONG>(ERROR_MORE_DATA);
        }
        std::memcpy(data, v.bytes.data(), needed);
    }
    if (size) *size = needed;
    return ERROR_SUCCESS;
}

LONG RegSetValueExW(HKEY hkey, const wchar_t* name, DWORD type, const BYTE* data, DWORD size) {
    Session s;
    if (s.r.broken) return static_cast<LONG>(ERROR_BADKEY);
    std::wstring path;
    if (LONG rc = keyPath(hkey, &path)) return rc;
    if (!data && size) return static_cast<LONG>(ERROR_INVALID_PARAMETER);
    if (type == REG_DWORD && size != 4) return static_cast<LONG>(ERROR_INVALID_PARAMETER);
    Key& key = s.r.create(path);
    Value v;
    v.name = name ? name : L"";
    v.type = type;
    v.bytes.assign(data, data + size);
    if (type == REG_SZ) v.bytes = wideBytes(bytesWide(v.bytes));  // always NUL-terminated
    key.values[lowered(v.name)] = std::move(v);
    return s.r.save() ? ERROR_SUCCESS : static_cast<LONG>(ERROR_GEN_FAILURE);
}

LONG RegFlushKey(HKEY hkey) {
    Session s;
    if (s.r.broken) return static_cast<LONG>(ERROR_BADKEY);
    std::wstring path;
    if (LONG rc = keyPath(hkey, &path)) return rc;
    return s.r.save() ? ERROR_SUCCESS : static_cast<LONG>(ERROR_GEN_FAILURE);
}

LONG RegCloseKey(HKEY hkey) {
    if (hkey == HKEY_LOCAL_MACHINE) return ERROR_SUCCESS;
    if (!lookupAs<RegKey>(hkey)) return static_cast<LONG>(ERROR_INVALID_HANDLE);
    CloseHandle(hkey);
    return ERROR_SUCCESS;
}

void reloadRegistry() {
    auto& r = registry();
    std::lock_guard<std::recursive_mutex> lock(r.mutex);
    r.loaded = false;
    r.keys.clear();
    r.seen.reset();
}

bool regReadDword(const std::wstring& key, const std::wstring& name, DWORD* out) {
    HKEY h = 0;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), &h) != ERROR_SUCCESS) return false;
    DWORD type = 0, value = 0, size = sizeof value;
    LONG rc = RegQueryValueExW(h, name.c_str(), &type, reinterpret_cast<BYTE*>(&value), &size);
    RegCloseKey(h);
    if (rc != ERROR_SUCCESS || type != REG_DWORD) return false;
    *out = value;
    return true;
}

bool regReadString(const std::wstring& key, const std::wstring& name, std::wstring* out) {
    HKEY h = 0;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), &h) != ERROR_SUCCESS) return false;
    DWORD type = 0, size = 0;
    LONG rc = RegQueryValueExW(h, name.c_str(), &type, nullptr, &size);
    std::vector<BYTE> bytes(size);
    if (rc == ERROR_SUCCESS && type == REG_SZ)
        rc = RegQueryValueExW(h, name.c_str(), &type, bytes.data(), &size);
    RegCloseKey(h);
    if (rc != ERROR_SUCCESS || type != REG_SZ) return false;
    *out = bytesWide(bytes);
    return true;
}

}  // namespace host
