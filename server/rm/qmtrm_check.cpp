// qmtrm_check.cpp - `qmtrm check`: the configuration as the plug-in will read it for this server,
// resource by resource, with what it resolves to now and every finding with its key.
#include "qmtrm.h"

#include "qmtrm_board.h"
#include "qmtplat.h"
#include "qmtxml.h"
#include "qmtxml_codes.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstring>
#include <map>

namespace qmtrm {

namespace {

// The plug-in's buffers for the texts it reads, and its ranges and replacements.
constexpr int kTypeSize = 32;
constexpr int kObjectSize = 32;
constexpr int kGuidSize = 63;
constexpr size_t kNameMax = 31;
constexpr int kDefaultTimeout = 300;
constexpr int kDefaultInterval = 60;
constexpr int kDefaultLogSize = 10000000;
constexpr int kDefaultDelay = 80;

// Reads through the configuration library and turns every failure into a finding.
class Reader {
public:
    explicit Reader(std::vector<Finding> *findings) : findings_(findings) {}

    // An integer; false (and an error or note) when it cannot be read.
    bool get_int(const std::string &key, int *value, Severity missing = Severity::Error,
                 const std::string &consequence = "the initialisation fails")
    {
        int32_t v = 0;
        int size = sizeof v;
        int rc = xmllib_get_value(key.c_str(), XMLLIB_KIND_INT, &v, &size);
        if (rc != 0) {
            add(missing, key, "unreadable key: " + consequence + " (xmllib_get_value " + std::to_string(rc) + ")");
            return false;
        }
        *value = v;
        return true;
    }
    bool get_text(const std::string &key, int capacity, std::string *value, Severity missing = Severity::Error,
                  const std::string &consequence = "the initialisation fails",
                  const std::string &what = "unreadable key")
    {
        std::vector<char> buffer(static_cast<size_t>(capacity) + 1, '\0');
        int size = capacity;
        int rc = xmllib_get_value(key.c_str(), XMLLIB_KIND_TEXT, buffer.data(), &size);
        if (rc != 0) {
            add(missing, key,
                what + ": " + consequence + " (xmllib_get_value " + std::to_string(rc) +
                    (rc == XMLLIB_E_INSUFFICIENT_BUFFER ? ", longer than " + std::to_string(capacity - 1) + " characters"
                                                        : std::string()) +
                    ")");
            return false;
        }
        value->assign(buffer.data(), strnlen(buffer.data(), static_cast<size_t>(capacity)));
        return true;
    }
    void add(Severity severity, const std::string &key, const std::string &text)
    {
        findings_->push_back(Finding{severity, key, text});
    }
    void range(const std::string &key, long long value, int replacement, const std::string &accepted)
    {
        add(Severity::Warning, key,
            "value out of range: " + std::to_string(value) + " (accepted: " + accepted + "); becomes " +
                std::to_string(replacement));
    }

private:
    std::vector<Finding> *findings_;
};

// Loads the configuration and the policies as the plug-in's initialisation does, and releases
// them in reverse order.
class LoadedConfig {
public:
    LoadedConfig(Service service, std::vector<Finding> *findings)
    {
        policies_ = service == Service::Sdw ? std::vector<const char *>{"sdw", "rm"}
                                            : std::vector<const char *>{"sdw", "disknp", "nm"};
        if (int rc = xmllib_init("sdw"); rc != 0) {
            findings->push_back({Severity::Error, "", "xmllib_init() failed. (Ret=" + std::to_string(rc) + ")"});
            return;
        }
        initialised_ = true;
        for (const char *policy : policies_) {
            if (int rc = xmllib_load_policy(policy); rc != 0) {
                findings->push_back({Severity::Error, std::string("policy/") + policy + ".xml",
                                     "policy not loaded (xmllib_load_policy " + std::to_string(rc) +
                                         "): the initialisation fails"});
                return;
            }
            ++loaded_;
        }
        if (int rc = xmllib_load_config(1); rc != 0) {
            findings->push_back({Severity::Error, "clp.conf",
                                 "configuration not loaded (xmllib_load_config " + std::to_string(rc) +
                                     "): the initialisation fails"});
            return;
        }
        ok_ = true;
    }
    ~LoadedConfig()
    {
        if (ok_)
            xmllib_unload_config();
        while (loaded_ > 0)
            xmllib_unload_policy(policies_[static_cast<size_t>(--loaded_)]);
        if (initialised_)
            xmllib_term();
    }
    bool ok() const { return ok_; }

private:
    std::vector<const char *> policies_;
    bool initialised_ = false;
    int loaded_ = 0;
    bool ok_ = false;
};

// The disks a GUID resolves to now, as the disk check would find them.
void resolve(ResourceReport *rsc, const std::string &key)
{
    qmtp::storage::Resolution found = qmtp::storage::resolve_volume(rsc->guid);
    if (found.error == ERROR_AMBIGUOUS_SYSTEM_DEVICE) {
        std::string devices;
        for (const std::string &d : found.devices)
            devices += (devices.empty() ? "" : ", ") + d;
        rsc->findings.push_back({Severity::Error, key,
                                 "GUID " + rsc->guid + " found on two devices (" + devices +
                                     "): it resolves to neither, every pass fails with status 4"});
        return;
    }
    if (found.error != 0) {
        rsc->findings.push_back({Severity::Error, key,
                                 "volume " + rsc->guid + " not found on this server (error " +
                                     std::to_string(found.error) + "): every pass fails with status 4"});
        return;
    }
    for (const qmtp::storage::DiskRef &d : found.disks)
        rsc->disks.push_back(DiskRef{d.number, d.dev});
    rsc->resolved = true;
}

void read_policy(Service service, Reader &r)
{
    std::string type;
    r.get_text("/root/monitor/sdw/type", kTypeSize, &type);
    int value = 0;
    r.get_int("/root/monitor/sdw/log/level", &value);
    if (r.get_int("/root/monitor/sdw/log/size", &value)) {
        auto size = static_cast<uint32_t>(value);
        if (size < 1000000U || size > 100000000U)
            r.range("/root/monitor/sdw/log/size", value, kDefaultLogSize, "1000000 to 100000000");
    }
    const std::string delay =
        service == Service::Sdw ? "/root/cluster/delaywarn/monitor" : "/root/cluster/delaywarn/heartbeat";
    if (r.get_int(delay, &value) && static_cast<uint32_t>(value) > 100U)
        r.range(delay, value, kDefaultDelay, "0 to 100");
}

std::vector<std::string> enumerate(const std::string &list, Reader &r, bool *ok)
{
    *ok = false;
    std::vector<std::string> out;
    int size = 0;
    int rc = xmllib_enum_value(list.c_str(), nullptr, &size);
    if (rc != 0 && rc != XMLLIB_ENUM_EMPTY && rc != XMLLIB_ENUM_NO_PARENT) {
        r.add(Severity::Error, list, "resources not listed (xmllib_enum_value " + std::to_string(rc) + ")");
        return out;
    }
    int count = size / XMLLIB_NAME_SLOT;
    if (count <= 0) {
        r.add(Severity::Error, list, "no resource configured: the initialisation fails (\"Unregistered monitor.\")");
        return out;
    }
    std::vector<char> names(static_cast<size_t>(count) * XMLLIB_NAME_SLOT, '\0');
    size = count * XMLLIB_NAME_SLOT;
    if ((rc = xmllib_enum_value(list.c_str(), names.data(), &size)) != 0) {
        r.add(Severity::Error, list, "resources not listed (xmllib_enum_value " + std::to_string(rc) + ")");
        return out;
    }
    for (int i = 0; i < count; ++i) {
        const char *slot = names.data() + static_cast<size_t>(i) * XMLLIB_NAME_SLOT;
        out.emplace_back(slot, strnlen(slot, XMLLIB_NAME_SLOT));
    }
    *ok = true;
    return out;
}

void read_sdw(ResourceReport &rsc, const std::string &server, bool resolve_now)
{
    Reader r(&rsc.findings);
    const std::string base = "/root/monitor/sdw@" + rsc.full_name;
    int value = 0;
    const std::string timeout_key = base + "/polling/timeout";
    if (r.get_int(timeout_key, &value)) {
        if (value < 1) {
            r.range(timeout_key, value, kDefaultTimeout, "at least 1");
            value = kDefaultTimeout;
        }
        rsc.config.timeout_s = value;
    }
    // The interval is the host's own setting; the plug-in never reads it.
    const std::string interval_key = base + "/polling/interval";
    rsc.config.interval_s = kDefaultInterval;
    if (r.get_int(interval_key, &value, Severity::Note, "polled every " + std::to_string(kDefaultInterval) + " s")) {
        if (value < 1)
            r.range(interval_key, value, kDefaultInterval, "at least 1");
        else
            rsc.config.interval_s = value;
    }
    const std::string object_key = base + "/parameters/object";
    if (r.get_text(object_key, kObjectSize, &rsc.object) && rsc.object.empty())
        r.add(Severity::Error, object_key, "empty object: the initialisation fails (\"No object.\")");
    if (rsc.object.empty()) {
        rsc.watches = false;
        return;
    }
    const std::string guid_key = "/root/resource/sd@" + rsc.object + "/server@" + server + "/parameters/volumeguid";
    if (!r.get_text(guid_key, kGuidSize, &rsc.guid, Severity::Warning,
                    "watches nothing, always answers 0", "no volume on this server")) {
        rsc.watches = false;
    } else if (rsc.guid.empty()) {
        r.add(Severity::Warning, guid_key, "no volume on this server: watches nothing, always answers 0 (empty GUID)");
        rsc.watches = false;
    } else if (resolve_now) {
        resolve(&rsc, guid_key);
    }
}

void read_disknp(ResourceReport &rsc, const std::string &server, bool resolve_now)
{
    Reader r(&rsc.findings);
    const std::string base = "/root/networkpartition/disknp@" + rsc.full_name;
    int value = 0;
    if (r.get_int(base + "/timeout", &value)) {
        if (value < 1) {
            r.range(base + "/timeout", value, kDefaultTimeout, "at least 1");
            value = kDefaultTimeout;
        }
        rsc.config.timeout_s = value;
    }
    if (r.get_int(base + "/interval", &value)) {
        if (value < 1) {
            r.range(base + "/interval", value, kDefaultInterval, "at least 1");
            value = kDefaultInterval;
        }
        rsc.config.interval_s = value;
    }
    if (r.get_int(base + "/count", &value)) {
        if (value < 0) {
            r.range(base + "/count", value, 0, "at least 0");
            value = 0;
        }
        rsc.retries = value;
    }
    if (!r.get_int(base + "/device", &rsc.device)) {
        rsc.watches = false;
        return;
    }
    const std::string info_key = "/root/server@" + server + "/device@" + std::to_string(rsc.device) + "/info";
    if (!r.get_text(info_key, kGuidSize, &rsc.guid)) {
        rsc.watches = false;
    } else if (rsc.guid.empty()) {
        r.add(Severity::Warning, info_key, "empty device GUID: the worker finds no disk and fails every cycle");
        rsc.watches = false;
    } else if (resolve_now) {
        resolve(&rsc, info_key);
    }
}

const char *severity_name(Severity s)
{
    return s == Severity::Error ? "error" : s == Severity::Warning ? "warning" : "note";
}

} // namespace

int ConfigReport::exit_code() const
{
    int worst = 0;
    auto weigh = [&](const std::vector<Finding> &list) {
        for (const Finding &f : list)
            worst = std::max(worst, f.severity == Severity::Error ? 2 : f.severity == Severity::Warning ? 1 : 0);
    };
    weigh(findings);
    for (const ResourceReport &r : resources)
        weigh(r.findings);
    return worst;
}

ConfigReport inspect_config(Service service, bool resolve_now)
{
    ConfigReport report;
    report.service = service;
    report.server = server_name();
    Reader r(&report.findings);
    if (report.server.empty()) {
        r.add(Severity::Error, "", "the server name cannot be read: the initialisation fails");
        return report;
    }
    LoadedConfig loaded(service, &report.findings);
    if (!loaded.ok())
        return report;
    read_policy(service, r);
    const std::string list = service == Service::Sdw ? "/root/monitor/sdw" : "/root/networkpartition/disknp";
    std::vector<std::string> names = enumerate(list, r, &report.readable);
    std::map<std::string, size_t> first_of;  // the plug-in finds a resource by its cut name
    for (const std::string &full : names) {
        ResourceReport rsc;
        rsc.full_name = full;
        rsc.config.name = full.substr(0, kNameMax);
        const std::string key = list + "@" + full;
        if (full.size() > kNameMax)
            rsc.findings.push_back({Severity::Warning, key,
                                    "name cut at 31 characters: the plug-in knows it as " + rsc.config.name});
        auto [it, fresh] = first_of.emplace(rsc.config.name, report.resources.size());
        if (!fresh)
            rsc.findings.push_back({Severity::Error, key,
                                    "duplicate name " + rsc.config.name + " (resource " + std::to_string(it->second + 1) +
                                        " has it too): only the first is served"});
        if (service == Service::Sdw)
            read_sdw(rsc, report.server, resolve_now);
        else
            read_disknp(rsc, report.server, resolve_now);
        report.resources.push_back(std::move(rsc));
    }
    return report;
}

bool read_resources(Service service, std::vector<ResourceConfig> *out, std::string *why)
{
    ConfigReport report = inspect_config(service, false);
    out->clear();
    for (const ResourceReport &rsc : report.resources)
        out->push_back(rsc.config);
    if (report.readable)
        return true;
    *why = report.findings.empty() ? std::string("no resources") : report.findings.back().text;
    if (!report.findings.empty() && !report.findings.back().key.empty())
        *why += " (" + report.findings.back().key + ")";
    return false;
}

std::string format_report(const ConfigReport &report)
{
    std::string out = "service " + std::string(service_name(report.service)) + " on server " + report.server + ", " +
                      std::to_string(report.resources.size()) + " resource(s), storage " +
                      qmtp_storage_name() + "\n";
    auto add_findings = [&](const std::vector<Finding> &list, const char *indent) {
        for (const Finding &f : list)
            out += std::string(indent) + severity_name(f.severity) + ": " + f.text +
                   (f.key.empty() ? std::string() : "\n" + std::string(indent) + "  key: " + f.key) + "\n";
    };
    add_findings(report.findings, "");
    for (const ResourceReport &rsc : report.resources) {
        out += "\n" + rsc.config.name + "\n";
        out += "  time-out " + std::to_string(rsc.config.timeout_s) + " s, interval " +
               std::to_string(rsc.config.interval_s) + " s, retries " +
               (rsc.retries < 0 ? std::string("-") : std::to_string(rsc.retries)) + "\n";
        if (report.service == Service::Sdw)
            out += "  object " + (rsc.object.empty() ? std::string("-") : rsc.object) + ", volume " +
                   (rsc.guid.empty() ? std::string("-") : rsc.guid) + "\n";
        else
            out += "  device " + (rsc.device < 0 ? std::string("-") : std::to_string(rsc.device)) + ", GUID " +
                   (rsc.guid.empty() ? std::string("-") : rsc.guid) + "\n";
        if (!rsc.watches) {
            out += "  disks: none (watches nothing)\n";
        } else if (rsc.resolved) {
            out += "  disks:";
            for (const DiskRef &d : rsc.disks)
                out += " " + std::to_string(d.number) + (d.device.empty() ? std::string() : " (" + d.device + ")");
            out += "\n";
        }
        add_findings(rsc.findings, "  ");
    }
    int rc = report.exit_code();
    out += std::string("\n") + (rc == 0 ? "clean" : rc == 1 ? "warnings" : "errors") + "\n";
    return out;
}

std::string report_json(const ConfigReport &report)
{
    auto findings = [](const std::vector<Finding> &list) {
        nlohmann::json out = nlohmann::json::array();
        for (const Finding &f : list)
            out.push_back({{"severity", severity_name(f.severity)}, {"key", f.key}, {"text", f.text}});
        return out;
    };
    nlohmann::json resources = nlohmann::json::array();
    for (const ResourceReport &rsc : report.resources) {
        nlohmann::json disks = nlohmann::json::array();
        for (const DiskRef &d : rsc.disks)
            disks.push_back({{"number", d.number}, {"device", d.device}});
        nlohmann::json r = {{"name", rsc.config.name},
                            {"configured_name", rsc.full_name},
                            {"timeout_s", rsc.config.timeout_s},
                            {"interval_s", rsc.config.interval_s},
                            {"retries", rsc.retries < 0 ? nlohmann::json() : nlohmann::json(rsc.retries)},
                            {"guid", rsc.guid},
                            {"watches", rsc.watches},
                            {"disks", rsc.resolved ? disks : nlohmann::json()},
                            {"findings", findings(rsc.findings)}};
        if (report.service == Service::Sdw)
            r["object"] = rsc.object;
        else
            r["device"] = rsc.device;
        resources.push_back(r);
    }
    int rc = report.exit_code();
    nlohmann::json out = {{"service", service_name(report.service)},
                          {"server", report.server},
                          {"storage", qmtp_storage_name()},
                          {"findings", findings(report.findings)},
                          {"resources", resources},
                          {"result", rc == 0 ? "clean" : rc == 1 ? "warnings" : "errors"}};
    return out.dump(2) + "\n";
}

int check_main(Service service, const EnvOptions &env, bool json)
{
    std::string why;
    if (!apply_env(env, &why)) {
        std::fprintf(stderr, "qmtrm: %s\n", why.c_str());
        return kExitUsage;
    }
    ConfigReport report = inspect_config(service, true);
    std::string text = json ? report_json(report) : format_report(report);
    std::fputs(text.c_str(), stdout);
    return report.exit_code();
}

} // namespace qmtrm
