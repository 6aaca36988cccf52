#include "Times.h"

#include <cctype>
#include <cstdio>
#include <limits>
#include <vector>

namespace tslcli {
namespace {

bool allDigits(const std::string& s) {
    if (s.empty()) return false;
    for (unsigned char c : s)
        if (!std::isdigit(c)) return false;
    return true;
}

// Digits only, and small enough that the sum below cannot overflow.
int64_t number(const std::string& digits, const std::string& whole) {
    if (!allDigits(digits) || digits.size() > 12)
        throw UsageError("bad time '" + whole + "': use milliseconds (1500) or hh:mm:ss.mmm (00:00:01.500)");
    return std::stoll(digits);
}

}  // namespace

int64_t parseTime(const std::string& text) {
    const std::string hint = "bad time '" + text + "': use milliseconds (1500) or hh:mm:ss.mmm (00:00:01.500)";
    if (text.find(':') == std::string::npos) {
        // A bare "1.5" could mean seconds or milliseconds; refuse to guess.
        if (!allDigits(text)) throw UsageError(hint);
        return number(text, text);
    }
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t colon; (colon = text.find(':', from)) != std::string::npos; from = colon + 1)
        parts.push_back(text.substr(from, colon - from));
    parts.push_back(text.substr(from));
    if (parts.size() > 3) throw UsageError(hint);

    std::string seconds = parts.back();
    int64_t fraction = 0;
    const size_t dot = seconds.find('.');
    if (dot != std::string::npos) {
        const std::string digits = seconds.substr(dot + 1);
        if (digits.empty() || digits.size() > 3 || !allDigits(digits)) throw UsageError(hint);
        fraction = number(digits, text);
        for (size_t i = digits.size(); i < 3; ++i) fraction *= 10;
        seconds = seconds.substr(0, dot);
    }
    const int64_t ss = number(seconds, text);
    const int64_t mm = number(parts[parts.size() - 2], text);
    const int64_t hh = parts.size() == 3 ? number(parts[0], text) : 0;
    if (ss >= 60 || (parts.size() == 3 && mm >= 60))
        throw UsageError("bad time '" + text + "': minutes and seconds run from 0 to 59");
    return ((hh * 60 + mm) * 60 + ss) * 1000 + fraction;
}

TimeSpan parseSpan(const std::string& text, const char* what) {
    const size_t dash = text.find('-');
    if (dash == std::string::npos || text.find('-', dash + 1) != std::string::npos)
        throw UsageError(std::string("bad ") + what + " '" + text + "': write START-END, e.g. 1000-3000 or 00:00:01.000-00:00:03.000");
    TimeSpan span{parseTime(text.substr(0, dash)), parseTime(text.substr(dash + 1))};
    if (span.end < span.start)
        throw UsageError(std::string(what) + " '" + text + "' ends before it starts");
    return span;
}

std::string clockText(int64_t ms) {
    const bool negative = ms < 0;
    // Work in unsigned so that the most negative value has a magnitude too.
    uint64_t v = negative ? 0 - static_cast<uint64_t>(ms) : static_cast<uint64_t>(ms);
    char buf[48];
    std::snprintf(buf, sizeof buf, "%s%02llu:%02llu:%02llu.%03llu", negative ? "-" : "",
                  static_cast<unsigned long long>(v / 3600000), static_cast<unsigned long long>(v / 60000 % 60),
                  static_cast<unsigned long long>(v / 1000 % 60), static_cast<unsigned long long>(v % 1000));
    return buf;
}

}  // namespace tslcli
