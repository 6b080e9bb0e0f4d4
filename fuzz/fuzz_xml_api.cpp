// The configuration store's exports over generated documents: the input builds a configuration and
// a policy (elements from a small vocabulary, `name` attributes that repeat, numbers near the
// limits), then a series of reads, enumerations and reloads. Every answer is checked against a
// plain walk of the same document, which also checks the index the store walks with.
#include "keypath.h"
#include "qmtxml.h"
#include "qmtxml_codes.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char *const kElements[] = {"monitor", "sdw", "polling", "timeout", "server", "device", "info", "a"};
const char *const kNames[] = {"x", "y", "sdw1", "a@b", "q'\"]", "x"};
const char *const kTexts[] = {"1", " 42 ", "-2147483648", "2147483648", "12a", "", "text", "0x10"};

struct Input {
    const uint8_t *p;
    size_t n;
    uint8_t next() { return n ? (--n, *p++) : 0; }
    bool empty() const { return n == 0; }
};

std::string escape(const char *s)
{
    std::string out;
    for (; *s; ++s) {
        switch (*s) {
        case '"': out += "&quot;"; break;
        case '\'': out += "&apos;"; break;
        case '<': out += "&lt;"; break;
        case '&': out += "&amp;"; break;
        default: out += *s;
        }
    }
    return out;
}

// One element and, while the input and the depth allow, its children.
void element(Input &in, int depth, std::string &out)
{
    uint8_t b = in.next();
    const char *el = kElements[b % 8];
    out += "<";
    out += el;
    if (b & 8) {
        out += " name=\"";
        out += escape(kNames[(b >> 4) % 6]);
        out += "\"";
    }
    out += ">";
    uint8_t kids = in.next() % 4;
    if (depth >= 6 || kids == 0)
        out += kTexts[in.next() % 8];
    for (int i = 0; depth < 6 && i < kids && !in.empty(); ++i)
        element(in, depth + 1, out);
    out += "</";
    out += el;
    out += ">";
}

std::string document(Input &in)
{
    std::string out = "<root>";
    for (int i = 0, n = 1 + in.next() % 6; i < n && !in.empty(); ++i)
        element(in, 1, out);
    return out + "</root>";
}

std::string key(Input &in)
{
    std::string k = "/root";
    for (int i = 0, n = 1 + in.next() % 4; i < n; ++i) {
        uint8_t b = in.next();
        k += "/";
        k += kElements[b % 8];
        if (b & 8) {
            k += "@";
            k += kNames[(b >> 4) % 6];
        }
    }
    return k;
}

bool write(const std::string &path, const std::string &text)
{
    FILE *f = std::fopen(path.c_str(), "w");
    if (!f)
        return false;
    std::fwrite(text.data(), 1, text.size(), f);
    return std::fclose(f) == 0;
}

// The same document, walked plainly.
struct Reference {
    pugi::xml_document doc;
    explicit Reference(const std::string &text)
    {
        std::string err;
        if (!qmtxml::load_document(text, "ref", doc, err))
            std::abort();
    }
};

// A scratch folder of this run, removed at exit; kept in a plain array, which outlives the exit
// handlers.
char scratch[64];

void remove_scratch()
{
    std::string d = scratch;
    unlink((d + "/clp.conf").c_str());
    unlink((d + "/policy/sdw.xml").c_str());
    rmdir((d + "/policy").c_str());
    rmdir(d.c_str());
}

std::string folder()
{
    if (!scratch[0]) {
        std::strcpy(scratch, "/tmp/qmtfuzzxml-XXXXXX");
        if (!mkdtemp(scratch) || mkdir((std::string(scratch) + "/policy").c_str(), 0700) != 0)
            std::abort();
        setenv("QMT_CONF_DIR", scratch, 1);
        std::atexit(remove_scratch);
    }
    return scratch;
}

void check_reads(Input &in, const Reference &conf, const Reference &policy)
{
    for (int i = 0; i < 8 && !in.empty(); ++i) {
        std::string k = key(in);
        std::vector<qmtxml::Segment> path;
        if (!qmtxml::parse_key(k, path))
            std::abort();
        pugi::xml_node n = qmtxml::walk(conf.doc, path);
        if (!n)
            n = qmtxml::walk(policy.doc, path);
        char text[64];
        int size = static_cast<int>(in.next() % sizeof text);
        int rc = xmllib_get_value(k.c_str(), XMLLIB_KIND_TEXT, text, &size);
        if (!n) {
            if (rc != XMLLIB_E_NOT_FOUND)
                std::abort();
            continue;
        }
        std::string_view want = qmtxml::leaf_text(n);
        if (rc == 0 ? std::string_view(text) != want || size != static_cast<int>(want.size()) + 1
                    : rc != XMLLIB_E_INSUFFICIENT_BUFFER || size != static_cast<int>(want.size()) + 1)
            std::abort();
        int32_t v = 0;
        int vsize = 4;
        int expect = 0, parsed = 0;
        expect = qmtxml::parse_int32(want, &parsed);
        if (xmllib_get_value(k.c_str(), XMLLIB_KIND_INT, &v, &vsize) != expect || (expect == 0 && v != parsed))
            std::abort();
        int esize = 0;
        int erc = xmllib_enum_value(k.c_str(), nullptr, &esize);
        if (erc == 0 || erc == XMLLIB_ENUM_EMPTY || erc == XMLLIB_ENUM_NO_PARENT) {
            if (esize < 0 || esize % XMLLIB_NAME_SLOT != 0 || (erc != 0) != (esize == 0))
                std::abort();
            if (esize == 0)
                continue;
            std::vector<char> buf(static_cast<size_t>(esize));
            int fsize = esize;
            if (xmllib_enum_value(k.c_str(), buf.data(), &fsize) != 0 || fsize != esize)
                std::abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string dir = folder();
    Input in{data, size};
    std::string conf_text = document(in), policy_text = document(in);
    if (!write(dir + "/clp.conf", conf_text) || !write(dir + "/policy/sdw.xml", policy_text))
        std::abort();
    if (xmllib_init("sdw") != 0 || xmllib_load_policy("sdw") != 0 || xmllib_load_config(1) != 0)
        std::abort();
    {
        Reference conf(conf_text), policy(policy_text);
        check_reads(in, conf, policy);
    }
    // A replaced configuration (a new file, as editors and installers leave it) is read again and
    // answers from then on.
    std::string next = document(in);
    if (!write(dir + "/clp.conf.new", next) || rename((dir + "/clp.conf.new").c_str(), (dir + "/clp.conf").c_str()) != 0 ||
        xmllib_reload_config(1) != 0)
        std::abort();
    {
        Reference conf(next), policy(policy_text);
        check_reads(in, conf, policy);
    }
    if (xmllib_unload_config() != 0 || xmllib_unload_policy("sdw") != 0 || xmllib_term() != 0)
        std::abort();
    return 0;
}
