#pragma once
#include <string>

// UTF-8 to wide (UTF-32 here) without consulting the process locale. Invalid
// UTF-8 (bad lead or continuation bytes, overlongs, surrogates, values past
// U+10FFFF) and a null or empty string give the empty result, which callers
// treat as failure.
std::wstring utf8ToWide(const char* utf8);
// The way back, for handing a wide path to open(2).
std::string wideToUtf8(const std::wstring& wide);
