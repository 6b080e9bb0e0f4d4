// module.cpp - LoadLibraryA / GetProcAddress / FreeLibrary over dlopen.
//
// A module's load entry point (DllMain) is run for the process attach after dlopen, and its
// failure makes the load fail with 1114, as on Windows: a plain dlopen has no way to fail from a
// library's constructor.
#include "internal.h"

#include <dlfcn.h>

#include <string>

namespace {
thread_local std::string loader_message;
using DllMainFn = BOOL (*)(HMODULE, DWORD, LPVOID);
}  // namespace

extern "C" {

HMODULE WINAPI LoadLibraryA(LPCSTR path)
{
    QMTP_FAULT_POINT("LoadLibraryA", nullptr);
    if (path == nullptr || *path == '\0') {
        loader_message = "no module name";
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    void *module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        const char *why = dlerror();
        loader_message = why != nullptr ? why : "dlopen failed";
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    if (auto entry = reinterpret_cast<DllMainFn>(dlsym(module, "DllMain")); entry != nullptr) {
        if (!entry(module, DLL_PROCESS_ATTACH, nullptr)) {
            dlclose(module);
            loader_message = std::string(path) + ": the module's load entry point failed";
            SetLastError(ERROR_DLL_INIT_FAILED);
            return nullptr;
        }
    }
    loader_message.clear();
    return module;
}

FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name)
{
    if (module == nullptr || name == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    dlerror();
    void *symbol = dlsym(module, name);
    if (symbol == nullptr) {
        const char *why = dlerror();
        loader_message = why != nullptr ? why : std::string(name) + ": not found";
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    return reinterpret_cast<FARPROC>(symbol);
}

BOOL WINAPI FreeLibrary(HMODULE module)
{
    if (module == nullptr || dlclose(module) != 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return TRUE;
}

const char *qmtp_loader_message(void)
{
    return loader_message.c_str();
}

}  // extern "C"
