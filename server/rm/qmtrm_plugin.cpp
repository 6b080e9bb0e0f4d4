// qmtrm_plugin.cpp - loading the plug-in by path and resolving its exports by name.
//
// The platform's LoadLibraryA runs the plug-in's load entry point as Windows does, so a plug-in
// whose locks cannot be created is refused here, with the loader's error 1114.
#include "qmtrm_plugin.h"

#include "qmtrm_platform.h"

#include <cstdlib>

namespace qmtrm {

std::string plugin_path(const std::string &option)
{
    if (!option.empty())
        return option;
    if (const char *env = std::getenv("QMT_PLUGIN"); env != nullptr && *env != '\0')
        return env;
    return platform::default_plugin();
}

namespace {

template <typename Fn>
bool resolve(Plugin *plugin, const char *name, Fn *slot, std::string *why)
{
    FARPROC symbol = GetProcAddress(static_cast<HMODULE>(plugin->handle), name);
    if (symbol == nullptr) {
        *why = plugin->path + ": export " + name + " not found: " + platform::loader_message();
        return false;
    }
    *slot = reinterpret_cast<Fn>(reinterpret_cast<void *>(symbol));
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
        *why = path + ": cannot load: " + platform::loader_message() + " (error " + std::to_string(GetLastError()) + ")";
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
              resolve(plugin, "GetCheckPoint", &plugin->GetCheckPoint, why) &&
              platform::attach_plugin(plugin->handle, why);
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
