#pragma once
#include <cstdint>

// Pauses the calling thread for `ms` milliseconds.
void Sleep(uint32_t ms);
