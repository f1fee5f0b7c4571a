#pragma once

#include <cstdarg>
#include <string>

/// printf-style formatting into a string of exactly the formatted length.
[[nodiscard]] std::string QelVFormat(const char* format, std::va_list args);
[[gnu::format(printf, 1, 2)]] [[nodiscard]] std::string QelFormat(const char* format, ...);
