#pragma once
// ffprobe's account of a file as parsed JSON, with readers for its numbers:
// the ground truth of the demuxer and picture tests. Header-only.
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "support/TestSupport.h"

namespace tsltest {

// Streams, format and packets (each with the MD5 of its data) of `path`;
// null when ffprobe fails.
inline nlohmann::json ffprobe(const std::string& path) {
    int status = 0;
    const std::string text = run(
        "ffprobe -v quiet -show_streams -show_format -show_packets -show_data_hash MD5 -of json " + shellQuote(path),
        &status);
    return status == 0 ? nlohmann::json::parse(text) : nlohmann::json();
}

// ffprobe writes most numbers as strings ("size": "4680"), unknowns as "N/A".
inline int64_t number(const nlohmann::json& object, const char* key, int64_t fallback = 0) {
    const nlohmann::json v = object.value(key, nlohmann::json());
    if (v.is_number_integer()) return v.get<int64_t>();
    return v.is_string() && v != "" && v != "N/A" ? std::stoll(v.get<std::string>()) : fallback;
}

// "num/den" as its two numbers.
inline std::pair<int64_t, int64_t> fraction(const nlohmann::json& object, const char* key) {
    const std::string text = object.value(key, std::string("0/1"));
    return {std::stoll(text.substr(0, text.find('/'))), std::stoll(text.substr(text.find('/') + 1))};
}

}  // namespace tsltest
