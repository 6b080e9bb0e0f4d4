// Documents of any content: loading either succeeds or reports a position inside the text, and a
// loaded document can be walked and enumerated.
#include "keypath.h"
#include "qmtxml_codes.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), size);
    pugi::xml_document doc;
    std::string err;
    if (!qmtxml::load_document(text, "clp.conf", doc, err)) {
        // "clp.conf:<line>:<column>: <reason>", the line within the text.
        if (err.rfind("clp.conf:", 0) != 0)
            std::abort();
        size_t line = std::strtoul(err.c_str() + 9, nullptr, 10);
        size_t lines = 1;
        for (char c : text)
            lines += c == '\n';
        if (line < 1 || line > lines)
            std::abort();
        return 0;
    }
    static const char *keys[] = {"/root/monitor/sdw/type", "/root/monitor/sdw@sdw1/polling/timeout",
                                 "/root/cluster/delaywarn/monitor",
                                 "/root/resource/sd@sd1/server@node1/parameters/volumeguid",
                                 "/root/server@node1/device@0/info", "/root/monitor"};
    for (const char *k : keys) {
        std::vector<qmtxml::Segment> path;
        if (!qmtxml::parse_key(k, path))
            std::abort();
        pugi::xml_node n = qmtxml::walk(doc, path);
        if (n) {
            int v = 0;
            (void)qmtxml::parse_int32(qmtxml::leaf_text(n), &v);
            for (pugi::xml_node c = n.first_child(); c; c = c.next_sibling())
                (void)c.attribute("name").value();
        }
    }
    return 0;
}
