// keypath.cpp - parsing and walking key paths; loading documents with positioned errors.
#include "keypath.h"

#include "qmtxml_codes.h"

#include <cstdint>

namespace qmtxml {

bool parse_key(std::string_view key, std::vector<Segment> &out)
{
    out.clear();
    if (key.empty() || key.size() > kMaxKeyLength || key.front() != '/')
        return false;
    size_t pos = 1;
    while (true) {
        size_t end = key.find('/', pos);
        std::string_view seg = key.substr(pos, end == std::string_view::npos ? std::string_view::npos
                                                                             : end - pos);
        if (seg.empty())
            return false;
        Segment s;
        size_t at = seg.find('@');
        if (at == std::string_view::npos) {
            s.element = seg;
        } else {
            // The first '@' separates; the name itself may hold further '@'.
            s.element = seg.substr(0, at);
            s.name = seg.substr(at + 1);
            s.has_name = true;
            if (s.element.empty() || s.name.empty())
                return false;
        }
        out.push_back(s);
        if (end == std::string_view::npos)
            break;
        pos = end + 1;
    }
    return out.front().element == "root" && !out.front().has_name;
}

static bool matches(pugi::xml_node node, const Segment &s)
{
    if (node.type() != pugi::node_element || s.element != node.name())
        return false;
    if (!s.has_name)
        return true;
    pugi::xml_attribute a = node.attribute("name");
    return a && s.name == a.value();
}

pugi::xml_node walk(const pugi::xml_document &doc, const std::vector<Segment> &path)
{
    pugi::xml_node cur = doc;
    for (const Segment &s : path) {
        pugi::xml_node next;
        for (pugi::xml_node c = cur.first_child(); c; c = c.next_sibling()) {
            if (matches(c, s)) {
                next = c;
                break;
            }
        }
        if (!next)
            return {};
        cur = next;
    }
    return cur;
}

size_t Index::Hash::operator()(const Key &k) const
{
    size_t h = std::hash<const void *>()(k.parent);
    h = h * 31 + std::hash<std::string_view>()(k.element);
    h = h * 31 + std::hash<std::string_view>()(k.name);
    return h * 2 + (k.has_name ? 1 : 0);
}

Index::Index(const pugi::xml_document &doc) : root_(doc)
{
    // Depth first, without recursion: a document may nest deeper than the stack allows.
    std::vector<pugi::xml_node> todo{doc};
    while (!todo.empty()) {
        pugi::xml_node parent = todo.back();
        todo.pop_back();
        for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling()) {
            if (c.type() != pugi::node_element)
                continue;
            const void *p = parent.internal_object();
            first_.try_emplace(Key{p, c.name(), {}, false}, c);
            if (pugi::xml_attribute a = c.attribute("name"))
                first_.try_emplace(Key{p, c.name(), a.value(), true}, c);
            if (c.first_child())
                todo.push_back(c);
        }
    }
}

pugi::xml_node Index::walk(const std::vector<Segment> &path) const
{
    pugi::xml_node cur = root_;
    for (const Segment &s : path) {
        auto it = first_.find(Key{cur.internal_object(), s.element, s.has_name ? s.name : std::string_view{},
                                  s.has_name});
        if (it == first_.end())
            return {};
        cur = it->second;
    }
    return cur;
}

static bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

std::string_view leaf_text(pugi::xml_node node)
{
    std::string_view t = node.text().get();
    while (!t.empty() && is_space(t.front()))
        t.remove_prefix(1);
    while (!t.empty() && is_space(t.back()))
        t.remove_suffix(1);
    return t;
}

int parse_int32(std::string_view text, int *value)
{
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty())
        return XMLLIB_E_BAD_DATA;
    int64_t v = 0;
    bool overflow = false;
    for (char c : text) {
        if (c < '0' || c > '9')
            return XMLLIB_E_BAD_DATA;
        if (!overflow) {
            v = v * 10 + (c - '0');
            overflow = v > int64_t{INT32_MAX} + 1;
        }
    }
    if (negative)
        v = -v;
    if (overflow || v < INT32_MIN || v > INT32_MAX)
        return XMLLIB_E_OVERFLOW;
    *value = static_cast<int>(v);
    return 0;
}

bool load_document(std::string_view text, const std::string &file, pugi::xml_document &doc,
                   std::string &error)
{
    pugi::xml_parse_result r = doc.load_buffer(text.data(), text.size(), pugi::parse_default,
                                               pugi::encoding_auto);
    if (r)
        return true;
    // pugixml reports a byte offset; people want a line and a column.
    size_t off = r.offset < 0 ? 0 : static_cast<size_t>(r.offset);
    if (off > text.size())
        off = text.size();
    size_t line = 1, col = 1;
    for (size_t i = 0; i < off; ++i) {
        if (text[i] == '\n') {
            ++line;
            col = 1;
        } else {
            ++col;
        }
    }
    error = file + ":" + std::to_string(line) + ":" + std::to_string(col) + ": " + r.description();
    doc.reset();
    return false;
}

}  // namespace qmtxml
