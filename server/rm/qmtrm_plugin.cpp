// qmtrm_plugin.cpp - loading the plug-in by path and resolving its exports by name.
//
// The platform's LoadLibraryA runs the plug-in's load entry point as Windows does, so a plug-in
// whose locks cannot be created is refused here, with the loader's error 1114.
#include "qmtrm_plugin.h"

#include "qmtplat.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>

namespace qmtrm {

std::string plugin_path(const std::string &option)
{
    if (!option.empty())
        return option;
    if (const char *env = std::getenv("QMT_PLUGIN"); env != nullptr && *env != '\0')
        return env;
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return "../lib/libqmtsdw.so";
    self[n] = '\0';
    std::string dir(self);
    dir.erase(dir.find_last_of('/') + 1);
#ifdef QMTRM_INSTALLED_PLUGIN
    // Installed (packaging/install.cmake), the plug-in is in the programs' private library folder.
    if (std::string installed = dir + QMTRM_INSTALLED_PLUGIN; access(installed.c_str(), F_OK) == 0)
        return installed;
#endif
    return dir + "../lib/libqmtsdw.so";
}

namespace {

template <typename Fn>
bool resolve(Plugin *plugin, const char *name, Fn *slot, std::string *why)
{
    FARPROC symbol = GetProcAddress(static_cast<HMODULE>(plugin->handle), name);
    if (symbol == nullptr) {
        *why = plugin->path + ": export " + name + " not found: " + qmtp_loader_message();
        return false;
    }
    *slot = reinterpret_cast<Fn>(symbol);
    return true;
}

} // namespace

bool load_plugin(const std::string &path, Plugin *plugin, std::string *why)
{
    *plugin = Plugin{};
    plugin->path = path;
    // Every import is bound at load: a plug-in with an unresolved one is refused here, not in
    // the middle of a pass.
    plugin->handle = LoadLibraryA(path.c_str());
    if (plugin->handle == nullptr) {
        *why = path + ": cannot load: " + qmtp_loader_message() + " (error " + std::to_string(GetLastError()) + ")";
        return false;
    }
    bool ok = resolve(plugin, "InitRscDll", &plugin->InitRscDll, why) &&
              resolve(plugin, "UninitRscDll", &plugin->UninitRscDll, why) &&
              resolve(plugin, "DoMontr", &plugin->DoMontr, why) &&
              resolve(plugin, "MontrStatusChange", &plugin->MontrStatusChange, why) &&
              resolve(plugin, "InitNpRscDll", &plugin->InitNpRscDll, why) &&
              resolve(plugin, "UninitNpRscDll", &plugin->UninitNpRscDll, why) &&
              resolve(plugin, "DoNpMontr", &plugin->DoNpMontr, why) &&
              resolve(plugin, "NpMontrStatusChange", &plugin->NpMontrStatusChange, why) &&
              resolve(plugin, "GetCheckPoint", &plugin->GetCheckPoint, why);
    if (!ok) {
        FreeLibrary(static_cast<HMODULE>(plugin->handle));
        std::string keep = path;
        *plugin = Plugin{};
        plugin->path = keep;
    }
    return ok;
}

void unload_plugin(Plugin *plugin)
{
    if (plugin->handle != nullptr)
        FreeLibrary(static_cast<HMODULE>(plugin->handle));
    plugin->handle = nullptr;
}

} // namespace qmtrm
