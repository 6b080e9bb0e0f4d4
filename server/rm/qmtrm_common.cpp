// qmtrm_common.cpp - environment, status texts, configuration and timeline output of the host.
#include "qmtrm.h"

#include "qmtlog.h"
#include "qmtshm.h"
#include "qmtxml.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace qmtrm {

namespace {

bool make_dirs(const std::string &path)
{
    std::string partial;
    for (size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || (path[i] == '/' && i > 0)) {
            partial = path.substr(0, i);
            if (mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST)
                return false;
        }
    }
    return true;
}

void set(const char *name, const std::string &value)
{
    if (!value.empty())
        setenv(name, value.c_str(), 1);
}

std::mutex texts_mutex;
HANDLE texts = nullptr;

} // namespace

bool apply_env(const EnvOptions &env, std::string *why)
{
    if (!env.log_dir.empty() && !make_dirs(env.log_dir)) {
        *why = "cannot create the log folder " + env.log_dir + ": " + std::strerror(errno);
        return false;
    }
    set("QMT_CONF_DIR", env.conf_dir);
    set("QMT_SIM_FILE", env.sim_file);
    set("QMT_LOG_DIR", env.log_dir);
    set("QMT_SHM_NAME", env.shm_name);
    set("QMT_HOSTNAME", env.host);
    return true;
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

namespace {

bool get_int(const std::string &key, int *value)
{
    int32_t v = 0;
    int size = sizeof v;
    if (xmllib_get_value(key.c_str(), XMLLIB_KIND_INT, &v, &size) != 0)
        return false;
    *value = v;
    return true;
}

} // namespace

bool read_resources(Service service, std::vector<ResourceConfig> *out, std::string *why)
{
    out->clear();
    // The host reads on its own account, before the plug-in loads the configuration for itself.
    if (int rc = xmllib_init("rm"); rc != 0) {
        *why = "xmllib_init() failed. (Ret=" + std::to_string(rc) + ")";
        return false;
    }
    bool ok = false;
    do {
        if (int rc = xmllib_load_config(1); rc != 0) {
            *why = "xmllib_load_config() failed. (Ret=" + std::to_string(rc) + ")";
            break;
        }
        const std::string list = service == Service::Sdw ? "/root/monitor/sdw" : "/root/networkpartition/disknp";
        int size = 0;
        int rc = xmllib_enum_value(list.c_str(), nullptr, &size);
        if (rc != 0 && rc != 3 && rc != 4) {
            *why = "xmllib_enum_value() failed. (Ret=" + std::to_string(rc) + " key=" + list + ")";
            break;
        }
        int count = size / XMLLIB_NAME_SLOT;
        std::vector<char> names(static_cast<size_t>(count) * XMLLIB_NAME_SLOT + 1, '\0');
        if (count > 0) {
            size = count * XMLLIB_NAME_SLOT;
            if ((rc = xmllib_enum_value(list.c_str(), names.data(), &size)) != 0) {
                *why = "xmllib_enum_value() failed. (Ret=" + std::to_string(rc) + " key=" + list + ")";
                break;
            }
        }
        for (int i = 0; i < count; ++i) {
            const char *slot = names.data() + static_cast<size_t>(i) * XMLLIB_NAME_SLOT;
            ResourceConfig rsc;
            rsc.name.assign(slot, strnlen(slot, XMLLIB_NAME_SLOT));
            int value = 0;
            if (service == Service::Sdw) {
                if (get_int("/root/monitor/sdw@" + rsc.name + "/polling/interval", &value) && value > 0)
                    rsc.interval_s = value;
                if (get_int("/root/monitor/sdw@" + rsc.name + "/polling/timeout", &value) && value > 0)
                    rsc.timeout_s = value;
            } else {
                if (get_int("/root/networkpartition/disknp@" + rsc.name + "/interval", &value) && value > 0)
                    rsc.interval_s = value;
                if (get_int("/root/networkpartition/disknp@" + rsc.name + "/timeout", &value) && value > 0)
                    rsc.timeout_s = value;
            }
            out->push_back(rsc);
        }
        ok = true;
    } while (false);
    xmllib_unload_config();
    xmllib_term();
    return ok;
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
    localtime_r(&t, &tm);
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
