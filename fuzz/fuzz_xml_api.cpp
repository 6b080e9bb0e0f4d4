// The configuration store's API over generated documents. The input drives a small generator of
// well-formed clp.conf documents (element names, name attributes and leaf texts drawn from the
// vocabulary of the cluster's keys, boundary numbers and odd characters) and of key paths; the
// generator keeps a model of the tree, and every answer of xmllib_get_value and
// xmllib_enum_value is checked against the model, with the buffer-size protocol of each.
#include "qmtxml.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

class Bytes {
public:
    Bytes(const uint8_t *d, size_t n) : d_(d), n_(n) {}
    bool empty() const { return i_ >= n_; }
    unsigned next(unsigned bound) { return bound == 0 ? 0 : (empty() ? 0 : d_[i_++]) % bound; }

private:
    const uint8_t *d_;
    size_t n_;
    size_t i_ = 0;
};

const char *const kElements[] = {"monitor", "sdw", "polling", "timeout", "parameters", "object", "resource",
                                 "sd", "server", "device", "info", "networkpartition", "disknp", "x"};
const char *const kNames[] = {"sdw1", "np1", "node1", "0", "a@b", "x'y", "", "sd1", "with space", "\xc3\xa9"};
const char *const kTexts[] = {"0", "1", "-1", "2147483647", "2147483648", "-2147483648", "-2147483649", " 12 ",
                              "+7", "0x10", "", "  ", "abc", "99999999999999999999", "1 2", "<&>\"'",
                              "00000000-0000-4000-8000-000000000001"};

struct Node {
    std::string element;
    bool has_name = false;
    std::string name;
    std::string text;  // leaves only
    std::vector<std::unique_ptr<Node>> children;
};

std::string escape(const std::string &s)
{
    std::string out;
    for (char c : s) {
        switch (c) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&apos;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string pick_text(Bytes &b)
{
    if (b.next(4) != 0)
        return kTexts[b.next(sizeof kTexts / sizeof *kTexts)];
    // Printable characters of the input, or a text longer than a name slot.
    if (b.next(8) == 0)
        return std::string(300 + b.next(50), 'n');
    std::string s;
    for (unsigned n = b.next(12); n > 0; n--)
        s += static_cast<char>(' ' + b.next(95));
    return s;
}

void grow(Bytes &b, Node &n, int depth)
{
    unsigned children = depth >= 5 ? 0 : b.next(5);
    if (children == 0) {
        n.text = pick_text(b);
        return;
    }
    for (unsigned i = 0; i < children && !b.empty(); i++) {
        auto c = std::make_unique<Node>();
        c->element = kElements[b.next(sizeof kElements / sizeof *kElements)];
        if (b.next(2) == 0) {
            c->has_name = true;
            c->name = b.next(6) == 0 ? pick_text(b) : kNames[b.next(sizeof kNames / sizeof *kNames)];
        }
        grow(b, *c, depth + 1);
        n.children.push_back(std::move(c));
    }
}

void print(const Node &n, std::string &out)
{
    out += "<" + n.element;
    if (n.has_name)
        out += " name=\"" + escape(n.name) + "\"";
    out += ">";
    if (n.children.empty())
        out += escape(n.text);
    for (const auto &c : n.children)
        print(*c, out);
    out += "</" + n.element + ">";
}

// A key path of the model (and its node), made of the input's choices; some steps lead nowhere.
struct Key {
    std::string path = "/root";
    const Node *node = nullptr;  // the first match, as the store walks; null when none
    const Node *last_parent = nullptr;
    std::string last_element;
};

bool clean(const std::string &s) { return s.find_first_of("/@") == std::string::npos && !s.empty(); }

const Node *first_match(const Node &parent, const std::string &element, const std::string *name)
{
    for (const auto &c : parent.children)
        if (c->element == element && (!name || (c->has_name && c->name == *name)))
            return c.get();
    return nullptr;
}

Key make_key(Bytes &b, const Node &root)
{
    Key k;
    const Node *at = &root;
    for (unsigned steps = 1 + b.next(5); steps > 0 && at; steps--) {
        std::string element;
        std::string name;
        bool with_name = false;
        if (!at->children.empty() && b.next(4) != 0) {
            const Node &c = *at->children[b.next(static_cast<unsigned>(at->children.size()))];
            element = c.element;
            with_name = c.has_name && clean(c.name) && b.next(2) == 0;
            name = c.name;
        } else {
            element = kElements[b.next(sizeof kElements / sizeof *kElements)];
        }
        k.last_parent = at;
        k.last_element = element;
        k.path += "/" + element + (with_name ? "@" + name : "");
        at = first_match(*at, element, with_name ? &name : nullptr);
    }
    k.node = at;
    return k;
}

std::string trimmed(const std::string &s)
{
    size_t a = s.find_first_not_of(" \t\n\r\f\v");
    if (a == std::string::npos)
        return "";
    size_t z = s.find_last_not_of(" \t\n\r\f\v");
    return s.substr(a, z - a + 1);
}

// Whole decimal of int32 range, as the store reads numbers: an optional sign and digits.
bool model_int(const std::string &t, int32_t *v)
{
    size_t i = t.size() > 0 && (t[0] == '+' || t[0] == '-') ? 1 : 0;
    if (i == t.size())
        return false;
    long long n = 0;
    for (size_t j = i; j < t.size(); j++) {
        if (t[j] < '0' || t[j] > '9')
            return false;
        n = std::min(n * 10 + (t[j] - '0'), 1LL << 40);
    }
    if (t[0] == '-')
        n = -n;
    if (n < INT32_MIN || n > INT32_MAX)
        return false;
    *v = static_cast<int32_t>(n);
    return true;
}

void check(bool ok)
{
    if (!ok)
        std::abort();
}

void check_get(const Key &k)
{
    char small[4];
    int size = sizeof small;
    int rc = xmllib_get_value(k.path.c_str(), XMLLIB_KIND_TEXT, small, &size);
    if (!k.node) {
        check(rc != 0);
        return;
    }
    if (!k.node->children.empty())
        return;  // the text of an element with children is not a setting
    const std::string want = trimmed(k.node->text);
    if (want.size() + 1 > sizeof small) {
        check(rc != 0 && size == static_cast<int>(want.size()) + 1);
        std::vector<char> buf(static_cast<size_t>(size) + 8, 'z');
        rc = xmllib_get_value(k.path.c_str(), XMLLIB_KIND_TEXT, buf.data(), &size);
        check(rc == 0 && size == static_cast<int>(want.size()) + 1 && want == buf.data());
    } else {
        check(rc == 0 && want == small);
    }
    int32_t v = 0, expect = 0;
    size = sizeof v;
    rc = xmllib_get_value(k.path.c_str(), XMLLIB_KIND_INT, &v, &size);
    const bool number = model_int(want, &expect);
    check(number ? rc == 0 && v == expect && size == 4 : rc != 0);
}

void check_enum(const Key &k)
{
    if (!k.last_parent)
        return;
    std::vector<std::string> want;
    for (const auto &c : k.last_parent->children)
        if (c->element == k.last_element && c->has_name && !c->name.empty())
            want.push_back(c->name.substr(0, XMLLIB_NAME_SLOT - 1));
    // The names of the last step's element under the parent the key walked to.
    const std::string parent = k.path.substr(0, k.path.rfind('/'));
    const std::string key = parent + "/" + k.last_element;
    int size = 0;
    int rc = xmllib_enum_value(key.c_str(), nullptr, &size);
    check((rc == 0 || rc == 3) && size == static_cast<int>(want.size()) * XMLLIB_NAME_SLOT);
    std::vector<char> buf(static_cast<size_t>(size) + 1, 'z');
    rc = xmllib_enum_value(key.c_str(), buf.data(), &size);
    check(rc == 0 || want.empty());
    for (size_t i = 0; i < want.size(); i++) {
        const char *slot = buf.data() + i * XMLLIB_NAME_SLOT;
        check(slot[XMLLIB_NAME_SLOT - 1] == '\0');
        check(std::string(slot).size() <= want[i].size() && want[i].compare(0, std::strlen(slot), slot) == 0);
    }
    check(buf[static_cast<size_t>(size)] == 'z');
}

// A folder of the process's own for the generated clp.conf, removed when the process ends.
const std::string &conf_dir()
{
    static const std::string *dir = [] {
        const char *tmp = std::getenv("TMPDIR");
        auto *t = new std::string(std::string(tmp && *tmp ? tmp : "/tmp") + "/fuzz-xml-XXXXXX");
        if (!mkdtemp(t->data()))
            std::abort();
        setenv("QMT_CONF_DIR", t->c_str(), 1);
        std::atexit([] {
            unlink((conf_dir() + "/clp.conf").c_str());
            rmdir(conf_dir().c_str());
        });
        return t;
    }();
    return *dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Bytes b(data, size);
    Node root;
    root.element = "root";
    grow(b, root, 0);
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    print(root, text);
    const std::string path = conf_dir() + "/clp.conf";
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        std::abort();
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);

    check(xmllib_init("sdw") == 0);
    check(xmllib_load_config(1) == 0);
    for (int i = 0; i < 8 && !b.empty(); i++) {
        Key k = make_key(b, root);
        check_get(k);
        check_enum(k);
    }
    check(xmllib_unload_config() == 0);
    check(xmllib_term() == 0);
    return 0;
}

