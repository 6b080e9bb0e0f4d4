// xml_helpers.h - small wrappers that read the configuration store the way the plug-in does.
#pragma once

#include "qmtxml.h"
#include "qmtxml_codes.h"

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
};

// The two-call protocol of xmllib_enum_value: size query, then fetch into a zero-filled buffer.
inline Names enum_names(const std::string &key)
{
    Names n{};
    n.size = 0;
    n.size_rc = xmllib_enum_value(key.c_str(), nullptr, &n.size);
    if (n.size_rc != 0 && n.size_rc != XMLLIB_ENUM_EMPTY && n.size_rc != XMLLIB_ENUM_NO_PARENT)
        return n;
    std::vector<char> buf(static_cast<size_t>(n.size) + 1, 0);
    int size = n.size;
    n.fetch_rc = xmllib_enum_value(key.c_str(), buf.data(), &size);
    for (int i = 0; i + XMLLIB_NAME_SLOT <= size; i += XMLLIB_NAME_SLOT)
        n.names.emplace_back(buf.data() + i);
    return n;
}

}  // namespace clustertest
