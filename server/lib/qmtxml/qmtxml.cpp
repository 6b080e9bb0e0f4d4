// qmtxml.cpp - the cluster configuration store: the cluster configuration and the policies as
// XML documents, read by key paths.
//
// Files: $QMT_CONF_DIR/clp.conf and $QMT_CONF_DIR/policy/<type>.xml; without QMT_CONF_DIR the
// folder is /etc/qmt, or %ProgramData%\qmt on Windows.
// A key is answered by the cluster configuration first, then by the policies in load order.
#include "qmtxml.h"

#include "keypath.h"
#include "qmtlib_sync.h"
#include "qmtxml_codes.h"
#include "xml_file.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

namespace {

using qmtxml::FileId;
using qmtxml::Segment;

// A parsed document with the index of its walks.
struct Doc {
    pugi::xml_document xml;
    std::unique_ptr<qmtxml::Index> index;
};

struct Loaded {
    std::string type;  // policy type; empty for the cluster configuration
    std::string path;
    std::shared_ptr<const Doc> doc;
    FileId id;
};

struct Store {
    qmtlib::Mutex admin;        // serialises init, term, loads, unloads and reloads
    qmtlib::SharedMutex docs;  // readers against the swap of a document
    bool initialised = false;
    std::string type;
    std::optional<Loaded> config;
    std::vector<Loaded> policies;  // in load order
};

// Made when the library is loaded, not on first use: the guard of a first-use static would keep a
// system handle that outlives the unloaded DLL on Windows.
Store g_store;

Store &store()
{
    return g_store;
}

std::string conf_dir()
{
    const char *d = std::getenv("QMT_CONF_DIR");
    return d && *d ? std::string(d) : qmtxml::default_conf_dir();
}

// Reads and parses one file; messages name the file (and the line of a parse error).
int load_file(const std::string &path, Loaded &out)
{
    std::string text, why;
    FileId id;
    switch (qmtxml::read_file(path, text, id, why)) {
    case qmtxml::ReadResult::open_failed:
        std::fprintf(stderr, "qmtxml: cannot open %s: %s\n", path.c_str(), why.c_str());
        return XMLLIB_E_FILE_NOT_FOUND;
    case qmtxml::ReadResult::read_failed:
        std::fprintf(stderr, "qmtxml: cannot read %s: %s\n", path.c_str(), why.c_str());
        return XMLLIB_E_FILE_NOT_FOUND;
    case qmtxml::ReadResult::ok:
        break;
    }
    auto doc = std::make_shared<Doc>();
    std::string error;
    if (!qmtxml::load_document(text, path, doc->xml, error)) {
        std::fprintf(stderr, "qmtxml: %s\n", error.c_str());
        return XMLLIB_E_BAD_DATA;
    }
    doc->index = std::make_unique<qmtxml::Index>(doc->xml);
    out.path = path;
    out.doc = std::move(doc);
    out.id = id;
    return 0;
}

// A policy type becomes a file name: keep it to a plain name.
bool valid_type(const char *type)
{
    if (!type || !*type || *type == '.')
        return false;
    size_t n = 0;
    for (const char *p = type; *p; ++p, ++n) {
        char c = *p;
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '-' || c == '.';
        if (!ok || n >= 64)
            return false;
    }
    return true;
}

// The documents in the order they answer: the configuration, then the policies.
template <class F> void for_each_doc(const Store &s, F &&f)
{
    if (s.config && f(*s.config->doc))
        return;
    for (const Loaded &p : s.policies)
        if (f(*p.doc))
            return;
}

bool has_documents(const Store &s)
{
    return s.initialised && (s.config || !s.policies.empty());
}

}  // namespace

extern "C" {

QMTXML_API int WINAPI xmllib_init(const char *type)
{
    if (!type || !*type)
        return XMLLIB_E_INVALID_PARAMETER;
    Store &s = store();
    std::lock_guard admin(s.admin);
    if (s.initialised)
        return XMLLIB_E_ALREADY_INITIALIZED;
    std::unique_lock lk(s.docs);
    s.initialised = true;
    s.type = type;
    return 0;
}

QMTXML_API int WINAPI xmllib_term(void)
{
    Store &s = store();
    std::lock_guard admin(s.admin);
    if (!s.initialised)
        return XMLLIB_E_NOT_READY;
    std::unique_lock lk(s.docs);
    s.config.reset();
    s.policies.clear();
    s.type.clear();
    s.initialised = false;
    return 0;
}

QMTXML_API int WINAPI xmllib_load_policy(const char *type)
{
    if (!valid_type(type))
        return XMLLIB_E_INVALID_PARAMETER;
    Store &s = store();
    std::lock_guard admin(s.admin);
    if (!s.initialised)
        return XMLLIB_E_NOT_READY;
    for (const Loaded &p : s.policies)
        if (p.type == type)
            return XMLLIB_E_ALREADY_EXISTS;
    Loaded l;
    int rc = load_file(conf_dir() + "/policy/" + type + ".xml", l);
    if (rc != 0)
        return rc;
    l.type = type;
    std::unique_lock lk(s.docs);
    s.policies.push_back(std::move(l));
    return 0;
}

QMTXML_API int WINAPI xmllib_unload_policy(const char *type)
{
    if (!type)
        return XMLLIB_E_INVALID_PARAMETER;
    Store &s = store();
    std::lock_guard admin(s.admin);
    if (!s.initialised)
        return XMLLIB_E_NOT_READY;
    for (auto it = s.policies.begin(); it != s.policies.end(); ++it) {
        if (it->type == type) {
            std::unique_lock lk(s.docs);
            s.policies.erase(it);
            return 0;
        }
    }
    return XMLLIB_E_NOT_READY;
}

QMTXML_API int WINAPI xmllib_load_config(int mode)
{
    if (mode != 1)
        return XMLLIB_E_INVALID_PARAMETER;
    Store &s = store();
    std::lock_guard admin(s.admin);
    if (!s.initialised)
        return XMLLIB_E_NOT_READY;
    if (s.config)
        return XMLLIB_E_ALREADY_EXISTS;
    Loaded l;
    int rc = load_file(conf_dir() + "/clp.conf", l);
    if (rc != 0)
        return rc;
    std::unique_lock lk(s.docs);
    s.config = std::move(l);
    return 0;
}

QMTXML_API int WINAPI xmllib_unload_config(void)
{
    Store &s = store();
    std::lock_guard admin(s.admin);
    if (!s.initialised || !s.config)
        return XMLLIB_E_NOT_READY;
    std::unique_lock lk(s.docs);
    s.config.reset();
    return 0;
}

QMTXML_API int WINAPI xmllib_reload_config(int mode)
{
    if (mode != 1)
        return XMLLIB_E_INVALID_PARAMETER;
    Store &s = store();
    std::lock_guard admin(s.admin);
    if (!s.initialised || !s.config)
        return XMLLIB_E_NOT_READY;
    const std::string path = s.config->path;
    FileId now;
    std::string why;
    if (!qmtxml::stat_file(path, now, why)) {
        std::fprintf(stderr, "qmtxml: cannot stat %s: %s (keeping the loaded configuration)\n",
                     path.c_str(), why.c_str());
        return XMLLIB_E_FILE_NOT_FOUND;
    }
    if (now == s.config->id)
        return 0;  // unchanged: the common case, one stat and nothing more
    Loaded l;
    int rc = load_file(path, l);
    if (rc != 0) {
        std::fprintf(stderr, "qmtxml: keeping the last good configuration from %s\n", path.c_str());
        return rc;
    }
    std::unique_lock lk(s.docs);
    s.config = std::move(l);
    return 0;
}

QMTXML_API int WINAPI xmllib_enum_value(const char *key, char *buffer, int *size)
{
    if (!key || !size)
        return XMLLIB_E_INVALID_PARAMETER;
    std::vector<Segment> path;
    if (!qmtxml::parse_key(key, path) || path.size() < 2 || path.back().has_name)
        return XMLLIB_E_INVALID_PARAMETER;
    const Segment kind = path.back();
    path.pop_back();

    Store &s = store();
    std::shared_lock lk(s.docs);
    if (!has_documents(s))
        return XMLLIB_E_NOT_READY;
    std::vector<const char *> names;
    bool parent_found = false;
    for_each_doc(s, [&](const Doc &doc) {
        pugi::xml_node parent = doc.index->walk(path);
        if (!parent)
            return false;
        parent_found = true;
        for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling()) {
            if (c.type() != pugi::node_element || kind.element != c.name())
                continue;
            pugi::xml_attribute a = c.attribute("name");
            if (a && *a.value())
                names.push_back(a.value());
        }
        return true;
    });
    if (names.size() > static_cast<size_t>(INT_MAX / XMLLIB_NAME_SLOT))
        return XMLLIB_E_OVERFLOW;
    const int need = static_cast<int>(names.size()) * XMLLIB_NAME_SLOT;
    if (!buffer) {
        *size = need;
        if (!parent_found)
            return XMLLIB_ENUM_NO_PARENT;
        return names.empty() ? XMLLIB_ENUM_EMPTY : XMLLIB_OK;
    }
    if (*size < need) {
        *size = need;
        return XMLLIB_E_INSUFFICIENT_BUFFER;
    }
    for (size_t i = 0; i < names.size(); ++i) {
        char *slot = buffer + i * XMLLIB_NAME_SLOT;
        std::memset(slot, 0, XMLLIB_NAME_SLOT);
        // A slot keeps at most 255 characters and its terminating NUL.
        size_t n = std::strlen(names[i]);
        if (n > XMLLIB_NAME_SLOT - 1)
            n = XMLLIB_NAME_SLOT - 1;
        std::memcpy(slot, names[i], n);
    }
    *size = need;
    return 0;
}

QMTXML_API int WINAPI xmllib_get_value(const char *key, int kind, void *buffer, int *size)
{
    if (!key || !size || (kind != XMLLIB_KIND_TEXT && kind != XMLLIB_KIND_INT))
        return XMLLIB_E_INVALID_PARAMETER;
    std::vector<Segment> path;
    if (!qmtxml::parse_key(key, path))
        return XMLLIB_E_INVALID_PARAMETER;

    Store &s = store();
    std::shared_lock lk(s.docs);
    if (!has_documents(s))
        return XMLLIB_E_NOT_READY;
    pugi::xml_node node;
    for_each_doc(s, [&](const Doc &doc) {
        node = doc.index->walk(path);
        return static_cast<bool>(node);
    });
    if (!node)
        return XMLLIB_E_NOT_FOUND;
    std::string_view text = qmtxml::leaf_text(node);

    if (kind == XMLLIB_KIND_TEXT) {
        if (text.size() >= static_cast<size_t>(INT_MAX))
            return XMLLIB_E_OVERFLOW;
        const int need = static_cast<int>(text.size()) + 1;
        if (!buffer || *size < need) {
            *size = need;
            return XMLLIB_E_INSUFFICIENT_BUFFER;
        }
        std::memcpy(buffer, text.data(), text.size());
        static_cast<char *>(buffer)[text.size()] = '\0';
        *size = need;
        return 0;
    }
    if (!buffer || *size < static_cast<int>(sizeof(int32_t))) {
        *size = sizeof(int32_t);
        return XMLLIB_E_INSUFFICIENT_BUFFER;
    }
    int value = 0;
    int rc = qmtxml::parse_int32(text, &value);
    if (rc != 0)
        return rc;
    const int32_t v = value;
    std::memcpy(buffer, &v, sizeof v);
    *size = sizeof v;
    return 0;
}

}  // extern "C"
