// Key paths of any shape against a fixed document: parsing and walking must never misbehave, and
// whatever the walk finds must be what the path names.
#include "keypath.h"
#include "qmtxml_codes.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

static const char kDoc[] =
    "<root><monitor><sdw name='a'><t>1</t></sdw><sdw name=\"x'y\"><t>-2147483648</t></sdw>"
    "<sdw name='a@b'><t>2147483648</t></sdw><sdw name='q]'><t> 7 </t></sdw><sdw/></monitor>"
    "<server name='node1'><device name='0'><info>guid</info></device></server></root>";

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static pugi::xml_document doc;
    static bool loaded = [] {
        std::string err;
        return qmtxml::load_document(kDoc, "fuzz", doc, err);
    }();
    if (!loaded)
        std::abort();
    std::string_view key(reinterpret_cast<const char *>(data), size);
    std::vector<qmtxml::Segment> path;
    if (!qmtxml::parse_key(key, path))
        return 0;
    if (key.size() > qmtxml::kMaxKeyLength || key.substr(0, 5) != "/root" || path.empty())
        std::abort();
    for (const auto &s : path) {
        if (s.element.empty() || s.element.find('/') != std::string_view::npos ||
            s.element.find('@') != std::string_view::npos || (s.has_name && s.name.empty()))
            std::abort();
    }
    pugi::xml_node n = qmtxml::walk(doc, path);
    if (n) {
        // The node found carries the last segment's element name and name attribute.
        const auto &last = path.back();
        if (last.element != n.name())
            std::abort();
        if (last.has_name && last.name != n.attribute("name").value())
            std::abort();
        int v = 0;
        int rc = qmtxml::parse_int32(qmtxml::leaf_text(n), &v);
        if (rc != 0 && rc != XMLLIB_E_BAD_DATA && rc != XMLLIB_E_OVERFLOW)
            std::abort();
    }
    return 0;
}
