// qmtrm_plugin.h - the plug-in as the host sees it: a module handle and its nine exports.
#pragma once

#include "qmtsdw.h"

#include <string>

namespace qmtrm {

struct Plugin {
    void *handle = nullptr;
    std::string path;
    QMTSDW_INIT_FN InitRscDll = nullptr;
    QMTSDW_INIT_FN UninitRscDll = nullptr;
    QMTSDW_DOMONTR_FN DoMontr = nullptr;
    QMTSDW_STATUS_FN MontrStatusChange = nullptr;
    QMTSDW_INIT_FN InitNpRscDll = nullptr;
    QMTSDW_INIT_FN UninitNpRscDll = nullptr;
    QMTSDW_DOMONTR_FN DoNpMontr = nullptr;
    QMTSDW_STATUS_FN NpMontrStatusChange = nullptr;
    QMTSDW_CHECKPOINT_FN GetCheckPoint = nullptr;
};

// Where the plug-in is looked for: the --plugin value, else $QMT_PLUGIN, else
// "../lib/libqmtsdw.so" next to the running executable.
std::string plugin_path(const std::string &option);

// Loads the plug-in and resolves every export. On failure *why names the file and what the
// dynamic loader said, and the handle is closed again.
bool load_plugin(const std::string &path, Plugin *plugin, std::string *why);

// Closes the plug-in. Only safe when none of its exports runs and none of its threads is alive.
void unload_plugin(Plugin *plugin);

} // namespace qmtrm
