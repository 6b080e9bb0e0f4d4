// qmtrm_common.cpp - environment, status texts, configuration and timeline output of the host.
#include "qmtrm.h"

#include "qmtlog.h"
#include "qmtrm_board.h"
#include "qmtrm_platform.h"
#include "qmtshm.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace qmtrm {

namespace {

void set(const char *name, const std::string &value)
{
    if (!value.empty())
        platform::set_env(name, value);
}

std::mutex texts_mutex;
HANDLE texts = nullptr;

} // namespace

bool apply_env(const EnvOptions &env, std::string *why)
{
    std::string reason;
    if (!env.log_dir.empty() && !platform::make_folders(env.log_dir, &reason)) {
        *why = "cannot create the log folder " + env.log_dir + ": " + reason;
        return false;
    }
    set("QMT_CONF_DIR", env.conf_dir);
    set("QMT_SIM_FILE", env.sim_file);
    set("QMT_LOG_DIR", env.log_dir);
    set("QMT_HOSTNAME", env.host);
    set("QMT_SHM_NAME", env.shm_name);
    const char *shm = std::getenv("QMT_SHM_NAME");
    if (shm == nullptr || *shm == '\0')
        set("QMT_SHM_NAME", default_shm_prefix());
    return true;
}

std::string plugin_log_file()
{
    const char *dir = std::getenv("QMT_LOG_DIR");
    return std::string(dir != nullptr && *dir != '\0' ? dir : "/var/log/qmt") + "/sdw.log";
}

void load_status_texts()
{
    std::lock_guard lock(texts_mutex);
    if (texts == nullptr && QmtLoadStringTable("sdw", 0, &texts) != 0)
        texts = nullptr;
}

void unload_status_texts()
{
    std::lock_guard lock(texts_mutex);
    if (texts != nullptr)
        QmtUnloadStringTable(texts);
    texts = nullptr;
}

std::string status_text(DWORD status)
{
    std::lock_guard lock(texts_mutex);
    if (texts == nullptr)
        return {};
    char buffer[256] = {};
    QmtGetStatusText(texts, static_cast<int>(status), buffer, sizeof buffer, 0);
    buffer[sizeof buffer - 1] = '\0';
    return buffer;
}

const char *service_name(Service service)
{
    return service == Service::Sdw ? "sdw" : "disknp";
}

int current_ratio()
{
    int ratio = 1;
    unsigned char extra[16] = {};
    if (shmcm_getratio(&ratio, extra) != 0 || ratio < 1)
        ratio = 1;
    return ratio;
}

Reporter::Reporter(bool elapsed_stamps) : elapsed_(elapsed_stamps), start_(std::chrono::steady_clock::now()) {}

Reporter::~Reporter()
{
    if (log_ != nullptr)
        QmtLogClose(log_);
}

void Reporter::open_log()
{
    if (log_ == nullptr && QmtLogOpen("rm", &log_, QMTLOG_INFO, 10000000, 0, "Global\\ORVQMT_RM_LOG") != 0)
        log_ = nullptr;
}

double Reporter::elapsed() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::string Reporter::stamp() const
{
    char buffer[64];
    if (elapsed_) {
        std::snprintf(buffer, sizeof buffer, "%7.2fs", elapsed());
        return buffer;
    }
    auto now = std::chrono::system_clock::now();
    std::time_t t = std::chrono::system_clock::to_time_t(now);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm tm{};
    platform::local_time(t, &tm);
    size_t n = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &tm);
    std::snprintf(buffer + n, sizeof buffer - n, ".%03d", static_cast<int>(ms));
    return buffer;
}

void Reporter::line(const std::string &resource, const std::string &text)
{
    std::lock_guard lock(mutex_);
    std::string who = resource.empty() ? std::string("-") : resource;
    if (who.size() < 8)
        who.resize(8, ' ');
    std::string out = stamp() + "  " + who + "  " + text;
    std::fprintf(stdout, "%s\n", out.c_str());
    std::fflush(stdout);
    if (log_ != nullptr)
        QmtLogWrite(log_, QMTLOG_INFO, 0, __FILE__, __LINE__, "Reporter", "%s %s",
                    resource.empty() ? "-" : resource.c_str(), text.c_str());
}

} // namespace qmtrm
