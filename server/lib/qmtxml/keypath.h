// keypath.h - key paths of the configuration store and how they walk a document.
#pragma once

#include <pugixml.hpp>

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qmtxml {

// Longest key path accepted, in characters (the callers format keys in 1024-byte buffers).
inline constexpr size_t kMaxKeyLength = 1023;

// One step of a key path: an element name, and for "elem@X" the required `name` attribute.
struct Segment {
    std::string_view element;
    std::string_view name;
    bool has_name = false;
};

// Splits "/root/a/b@X/c" into segments. Fails (false) on a path that is empty, too long, does
// not start with "/root", has an empty segment, an empty element name or an empty "@" part.
// The views point into `key`.
bool parse_key(std::string_view key, std::vector<Segment> &out);

// Walks `doc` along `path` (the first segment is the document element) by element names and
// name attributes, taking the first match at each step. Returns an empty node when nothing
// matches.
pugi::xml_node walk(const pugi::xml_document &doc, const std::vector<Segment> &path);

// The answer of every step a walk can take in one document, built once at load: for each element,
// the first child of each element name, and the first child of each element name and `name`
// attribute. A walk through it costs the same whatever the number of siblings.
class Index {
public:
    explicit Index(const pugi::xml_document &doc);
    pugi::xml_node walk(const std::vector<Segment> &path) const;

private:
    struct Key {
        const void *parent;
        std::string_view element;
        std::string_view name;
        bool has_name;
        bool operator==(const Key &) const = default;
    };
    struct Hash {
        size_t operator()(const Key &k) const;
    };
    pugi::xml_node root_;
    std::unordered_map<Key, pugi::xml_node, Hash> first_;
};

// The text of a leaf element with leading and trailing ASCII white space removed.
std::string_view leaf_text(pugi::xml_node node);

// Parses a whole signed 32-bit decimal number, white space already trimmed. Returns 0, or
// XMLLIB_E_BAD_DATA (not a whole number) or XMLLIB_E_OVERFLOW (out of range).
int parse_int32(std::string_view text, int *value);

// Parses `text` (the whole file) into `doc`. On failure fills `error` with
// "<file>:<line>:<column>: <reason>" and returns false.
bool load_document(std::string_view text, const std::string &file, pugi::xml_document &doc,
                   std::string &error);

}  // namespace qmtxml
