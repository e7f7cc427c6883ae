#include "JsonValue.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace brvo {

std::string JsonValue::Text(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string JsonValue::Number(double value) {
    if (!std::isfinite(value)) return "null";
    char buffer[64];
    const std::to_chars_result written = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, written.ptr);
}

} // namespace brvo
