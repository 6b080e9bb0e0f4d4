// Descriptions of any content for the simulated storage: a text is either taken whole or
// rejected with "<text>:LINE: reason" naming one of its lines, and a text that is taken is taken
// statement by statement too, each line alone (what the host's script lines do).
#include "qmtplat.h"

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::string why;
    if (!qmtp::sim::load_text(text, &why)) {
        if (why.rfind("<text>:", 0) != 0)
            std::abort();
        const unsigned long line = std::strtoul(why.c_str() + 7, nullptr, 10);
        unsigned long lines = 1;
        for (char c : text)
            lines += c == '\n';
        if (line < 1 || line > lines)
            std::abort();
        return 0;
    }
    qmtp::sim::reset();
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!qmtp::sim::apply(line, &why))
            std::abort();
    }
    qmtp::sim::reset();
    return 0;
}
