#include "platform/modules.h"

#include <cwctype>
#include <mutex>

#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/no_destructor.h"

namespace host {
namespace {

class Module final : public KernelObject {
  public:
    explicit Module(std::map<std::string, FARPROC> entries) : entries(std::move(entries)) {}
    const std::map<std::string, FARPROC> entries;
};

struct Modules {
    std::mutex mutex;
    std::map<std::wstring, std::shared_ptr<Module>> byName;  // lower-cased
};
Modules& modules() {
    static NoDestructor<Modules> m;
    return *m;
}
std::wstring lowered(std::wstring s) {
    for (auto& c : s) c = static_cast<wchar_t>(std::towlower(c));
    return s;
}

}  // namespace

void registerModule(const std::wstring& name, std::map<std::string, FARPROC> entries) {
    auto& m = modules();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.byName[lowered(name)] = std::make_shared<Module>(std::move(entries));
}

void unregisterModule(const std::wstring& name) {
    auto& m = modules();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.byName.erase(lowered(name));
}

HANDLE LoadLibraryW(const wchar_t* name) {
    std::shared_ptr<Module> module;
    if (name) {
        auto& m = modules();
        std::lock_guard<std::mutex> lock(m.mutex);
        auto it = m.byName.find(lowered(name));
        if (it != m.byName.end()) module = it->second;
    }
    if (!module) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return NULL_HANDLE;
    }
    return addHandle(std::move(module));
}

FARPROC GetProcAddressW(HANDLE module, const char* entry) {
    auto m = lookupAs<Module>(module);
    if (!m) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    auto it = entry ? m->entries.find(entry) : m->entries.end();
    if (it == m->entries.end() || !it->second) {
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    return it->second;
}

BOOL FreeLibrary(HANDLE module) {
    return CloseHandle(module);
}

}  // namespace host
