#pragma once
// The subcommands of `tessalo`. Each returns the exit status; a refusal or a
// failed job throws JobFailure (status 1), a bad argument UsageError (status 2).
#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <vector>

#include "Times.h"

namespace tslcli {

struct JobFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Settings {
    std::chrono::milliseconds idle{std::chrono::seconds(20)};  // silence that counts as a hang
    bool json = false;
    int32_t cutKind = 1;  // the synced cut; 0 keeps the original timeline
};

int runInfo(const Settings& s, const std::string& file, std::ostream& out);
int runKeys(const Settings& s, const std::string& file, std::ostream& out);
int runGroup(const Settings& s, const std::string& file, int64_t key, std::ostream& out);

struct ThumbOptions {
    std::string dir = "thumbs";
    std::string sheet;  // empty: DIR/sheet.png
    int columns = 5;
    int thumbWidth = 160;
};
int runThumbs(const Settings& s, const std::string& file, const ThumbOptions& o, std::ostream& out);
int runFrames(const Settings& s, const std::string& file, int64_t key, const std::string& dir, std::ostream& out);

int runCut(const Settings& s, const std::string& file, const std::string& output, const std::vector<TimeSpan>& ranges,
           const std::vector<TimeSpan>& offsets, std::ostream& out);

int runDemo(const Settings& s, const std::string& dir, std::ostream& out);

// Picture file name for a timestamp: key_000001000ms.png.
std::string pictureName(const char* prefix, int64_t pts);

}  // namespace tslcli
