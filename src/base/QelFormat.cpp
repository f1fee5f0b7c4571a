#include "base/QelFormat.h"

#include <cstdio>

std::string QelVFormat(const char* format, std::va_list args)
{
    std::va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length <= 0)
        return {};
    std::string text(static_cast<std::size_t>(length), '\0');
    // The string owns length + 1 bytes: room for the terminator vsnprintf writes.
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    return text;
}

std::string QelFormat(const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    std::string text = QelVFormat(format, args);
    va_end(args);
    return text;
}
