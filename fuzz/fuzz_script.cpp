// Scripts of any shape through the parser of `qmtrm script`: it either refuses a script with a
// line number inside it, or gives statements whose numbers lie in their ranges. Every line's
// words, quoted again, split back into the same words, and a text matches itself as a pattern
// once its stars are escaped.
#include "qmtrm_script_parse.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

using namespace qmtrm::script;

namespace {

void check(bool ok)
{
    if (!ok)
        std::abort();
}

std::string quoted(const std::string &text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

void check_statement(const Statement &st)
{
    switch (st.op) {
    case Op::Sleep:
        check(st.n >= 0 && st.n <= 3600000);
        break;
    case Op::Wait:
        check(!st.has_n || (st.n >= 0 && st.n <= 3600000));
        break;
    case Op::Ratio:
        check(st.n >= INT32_MIN && st.n <= INT32_MAX);
        break;
    case Op::Expect:
    case Op::Call:
    case Op::Async:
        check(st.n >= INT32_MIN && st.n <= UINT32_MAX);
        check(st.call.n1 >= INT32_MIN && st.call.n1 <= UINT32_MAX);
        check(st.call.n2 >= INT32_MIN && st.call.n2 <= UINT32_MAX);
        break;
    case Op::Fault:
        check(st.n >= 1 && st.n <= UINT32_MAX && st.m >= 0 && st.m <= UINT32_MAX && !st.name.empty());
        break;
    case Op::TickSet:
    case Op::TickFreeze:
        check(st.n >= 0 && st.n <= UINT32_MAX);
        break;
    default:
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    const int lines = static_cast<int>(std::count(text.begin(), text.end(), '\n')) + 1;
    try {
        for (const Statement &st : parse(text))
            check_statement(st);
    } catch (const ParseError &e) {
        check(e.line >= 1 && e.line <= lines && !e.what.empty());
    }
    // The first line's words survive quoting.
    const std::string first = text.substr(0, text.find('\n'));
    try {
        std::vector<Word> words = split_words(first);
        std::string again;
        for (const Word &w : words)
            again += quoted(w.text) + " ";
        std::vector<Word> back = split_words(again);
        check(back.size() == words.size());
        for (size_t i = 0; i < words.size(); ++i) {
            check(back[i].text == words[i].text && back[i].quoted);
            std::string pattern;
            for (char c : words[i].text)
                pattern += c == '*' ? std::string("\\*") : std::string(1, c);
            check(text_matches(pattern, words[i].text));
            check(text_matches("*", words[i].text));
        }
    } catch (const ParseError &) {
    }
    return 0;
}
