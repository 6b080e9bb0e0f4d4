// xml_helpers.h - small wrappers that read the configuration store the way the plug-in does.
#pragma once

#include "qmtxml.h"
#include "qmtxml_codes.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace clustertest {

struct Text {
    int rc;
    std::string value;
    int size;  // what the call left in *size
};

inline Text get_text(const std::string &key, int capacity = 256)
{
    std::vector<char> buf(static_cast<size_t>(capacity) + 1, 'X');
    int size = capacity;
    int rc = xmllib_get_value(key.c_str(), XMLLIB_KIND_TEXT, buf.data(), &size);
    return {rc, rc == 0 ? std::string(buf.data()) : std::string(), size};
}

struct Int {
    int rc;
    int value;
};

inline Int get_int(const std::string &key)
{
    int32_t v = -12345;
    int size = 4;
    int rc = xmllib_get_value(key.c_str(), XMLLIB_KIND_INT, &v, &size);
    return {rc, v};
}

struct Names {
    int size_rc;
    int size;
    int fetch_rc;
    std::vector<std::string> names;
    bool whole_slots;  // each name's slot is NUL from its end to the slot's end
};

// The two-call protocol of xmllib_enum_value: size query, then fetch (into a buffer of junk, so
// that a slot not filled to its end shows).
inline Names enum_names(const std::string &key)
{
    Names n{};
    n.whole_slots = true;
    n.size_rc = xmllib_enum_value(key.c_str(), nullptr, &n.size);
    if (n.size_rc != 0 && n.size_rc != XMLLIB_ENUM_EMPTY && n.size_rc != XMLLIB_ENUM_NO_PARENT)
        return n;
    std::vector<char> buf(static_cast<size_t>(n.size) + 1, 'Z');
    int size = n.size;
    n.fetch_rc = xmllib_enum_value(key.c_str(), buf.data(), &size);
    for (int i = 0; i + XMLLIB_NAME_SLOT <= size; i += XMLLIB_NAME_SLOT) {
        const char *slot = buf.data() + i;
        n.names.emplace_back(slot, strnlen(slot, XMLLIB_NAME_SLOT));
        n.whole_slots = n.whole_slots && std::all_of(slot + n.names.back().size(), slot + XMLLIB_NAME_SLOT,
                                                     [](char c) { return c == '\0'; });
    }
    return n;
}

}  // namespace clustertest
