#pragma once
// Times on the command line: plain milliseconds ("1500") or a clock reading
// ("00:00:01.500", "01:30.250"). Ranges are "START-END", end inclusive.
#include <cstdint>
#include <stdexcept>
#include <string>

namespace tslcli {

// A mistake in what the user typed; the program answers it with exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct TimeSpan {
    int64_t start;
    int64_t end;
};

// Throws UsageError with a sentence naming the bad text.
int64_t parseTime(const std::string& text);
// "START-END" with START <= END; `what` names the option in messages ("range").
TimeSpan parseSpan(const std::string& text, const char* what);

// 1500 -> "00:00:01.500"; negative values keep their sign.
std::string clockText(int64_t ms);

}  // namespace tslcli
