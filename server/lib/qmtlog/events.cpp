// events.cpp - the event table and the rendering of an event's inserts.
//
// An event arrives as an identifier plus an insert format made only of conversions ("%s%d%d%d")
// and one value per conversion. The values are rendered one by one and put into the event's
// text at %1, %2, ..., so the text reads as a sentence in the log and in syslog.

#include "qmtlog_internal.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace qmtlog {
namespace {

struct EventText {
    int number;
    const char *text;
};

constexpr EventText kEvents[] = {
    {3651, "Delayed response from the disk of %1 (time-out %2s, answered in %3ms, delay ratio %4%)"},
    {3652, "Disk failure of %1: a disk of the resource could not be opened or failed its check"},
    {3653, "Disks of %1 recovered: every disk answers its check again"},
};

std::string hex(uintmax_t v, bool upper) {
    char buf[32];
    std::snprintf(buf, sizeof buf, upper ? "%jX" : "%jx", v);
    return buf;
}

}  // namespace

const char *event_severity(DWORD event_id) {
    switch (event_id >> 30) {
    case 1: return "INFORMATION";
    case 2: return "WARNING";
    case 3: return "ERROR";
    default: return "SUCCESS";
    }
}

std::vector<std::string> event_inserts(const char *format, va_list ap) {
    std::vector<std::string> out;
    if (!format) return out;
    for (const char *p = format; *p; ++p) {
        if (*p != '%') continue;
        ++p;
        if (*p == '%') continue;
        while (*p && std::strchr("-+ #0'", *p)) ++p;
        if (*p == '*') {
            (void)va_arg(ap, int);
            ++p;
        } else {
            while (std::isdigit(static_cast<unsigned char>(*p))) ++p;
        }
        if (*p == '.') {
            ++p;
            if (*p == '*') {
                (void)va_arg(ap, int);
                ++p;
            } else {
                while (std::isdigit(static_cast<unsigned char>(*p))) ++p;
            }
        }
        int longs = 0;  // 0 int, 1 long, 2 long long, 3 size_t/intmax_t/ptrdiff_t
        bool long_double = false;
        for (;; ++p) {
            if (*p == 'h') continue;  // promoted to int anyway
            if (*p == 'l') { ++longs; continue; }
            if (*p == 'z' || *p == 'j' || *p == 't') { longs = 3; continue; }
            if (*p == 'L') { long_double = true; continue; }
            break;
        }
        switch (*p) {
        case 'd':
        case 'i': {
            intmax_t v = longs == 0 ? va_arg(ap, int)
                         : longs == 1 ? va_arg(ap, long)
                         : longs == 2 ? va_arg(ap, long long)
                                      : va_arg(ap, intmax_t);
            out.push_back(std::to_string(v));
            break;
        }
        case 'u':
        case 'x':
        case 'X':
        case 'o': {
            uintmax_t v = longs == 0 ? va_arg(ap, unsigned)
                          : longs == 1 ? va_arg(ap, unsigned long)
                          : longs == 2 ? va_arg(ap, unsigned long long)
                                       : va_arg(ap, uintmax_t);
            if (*p == 'u') out.push_back(std::to_string(v));
            else if (*p == 'o') {
                char buf[32];
                std::snprintf(buf, sizeof buf, "%jo", v);
                out.push_back(buf);
            } else out.push_back(hex(v, *p == 'X'));
            break;
        }
        case 'c': out.push_back(std::string(1, static_cast<char>(va_arg(ap, int)))); break;
        case 's': {
            const char *s = va_arg(ap, const char *);
            out.push_back(s ? s : "(null)");
            break;
        }
        case 'p': out.push_back("0x" + hex(reinterpret_cast<uintptr_t>(va_arg(ap, void *)), false)); break;
        case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A': {
            long double v = long_double ? va_arg(ap, long double) : va_arg(ap, double);
            char buf[64];
            std::snprintf(buf, sizeof buf, "%Lg", v);
            out.push_back(buf);
            break;
        }
        default:
            // An unknown conversion: its value cannot be taken safely, so stop here.
            return out;
        }
        if (!*p) break;
    }
    return out;
}

std::string event_message(DWORD event_id, const std::vector<std::string> &inserts) {
    int number = static_cast<int>(event_id & 0xFFFFu);
    std::string out = "EVENT " + std::to_string(number) + " " + event_severity(event_id) + " ";
    const char *text = nullptr;
    for (const EventText &e : kEvents)
        if (e.number == number) text = e.text;
    if (!text) {
        out += "inserts:";
        for (const std::string &s : inserts) out += " " + s;
        return out;
    }
    for (const char *p = text; *p; ++p) {
        if (p[0] == '%' && p[1] >= '1' && p[1] <= '9') {
            size_t i = static_cast<size_t>(p[1] - '1');
            if (i < inserts.size()) out += inserts[i];
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

}  // namespace qmtlog
