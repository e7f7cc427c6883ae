#include "util/StringUtil.h"

#include <Poco/Ascii.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace brvo {

namespace {

const std::int32_t kDefaultSize = 10485760;

// Reads `text` whole like strtol with base 0 would on the 32-bit target:
// false when nothing, or not everything, could be read, or the number does
// not fit 32 bits.
bool ReadWholeNumber(const std::string& text, std::int64_t& value) {
    if (text.empty()) return false;
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(begin, &end, 0);
    if (end == begin || *end != '\0' || errno == ERANGE) return false;
    if (parsed < INT32_MIN || parsed > INT32_MAX) return false;
    value = parsed;
    return true;
}

std::int64_t MultiplierOf(unsigned char unit) {
    switch (unit) {
    case 'k':
    case 'K':
        return 1024;
    case 'm':
    case 'M':
        return 1048576;
    case 'g':
    case 'G':
        return 1073741824;
    default:
        return 1;
    }
}

template <typename Byte>
std::string HexOf(const Byte* bytes, std::size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    if (bytes == nullptr) return hex;
    hex.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        const unsigned value = static_cast<unsigned char>(bytes[i]);
        hex.push_back(kDigits[value >> 4]);
        hex.push_back(kDigits[value & 0x0f]);
    }
    return hex;
}

} // namespace

std::string StringUtil::DecodeDigitHex(const std::string& hex) {
    std::string decoded;
    char pair[5] = {'0', 'x', '\0', '\0', '\0'};
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        pair[2] = hex[i];
        pair[3] = i + 1 < hex.size() ? hex[i + 1] : '\0';
        const long value = std::strtol(pair, nullptr, 16);
        char text[24];
        std::snprintf(text, sizeof text, "%ld", value);
        decoded += text;
    }
    return decoded;
}

std::string StringUtil::BytesToHex(const unsigned char* bytes, std::size_t size) {
    return HexOf(bytes, size);
}

std::string StringUtil::BytesToHex(const signed char* bytes, std::size_t size) {
    return HexOf(bytes, size);
}

std::string StringUtil::BytesToString(const unsigned char* bytes, std::size_t size) {
    if (bytes == nullptr) return std::string();
    return std::string(reinterpret_cast<const char*>(bytes), size);
}

namespace {

// A value formatted with "%f" on this thread, when its text fits.
struct FixedEntry {
    std::uint64_t bits = 0;
    std::size_t length = 0;
    bool used = false;
    char text[48] = {};
};

} // namespace

void StringUtil::FormatFixed(double value, char* text, std::size_t size) {
    static constexpr std::size_t kEntries = 4;
    thread_local FixedEntry entries[kEntries];
    thread_local std::size_t nextEntry = 0;
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    const FixedEntry* found = nullptr;
    for (const FixedEntry& entry : entries) {
        if (entry.used && entry.bits == bits) found = &entry;
    }
    if (found == nullptr) {
        FixedEntry& entry = entries[nextEntry];
        const int length = std::snprintf(entry.text, sizeof entry.text, "%f", value);
        if (length < 0 || static_cast<std::size_t>(length) >= sizeof entry.text) {
            std::snprintf(text, size, "%f", value);
            return;
        }
        entry.bits = bits;
        entry.length = static_cast<std::size_t>(length);
        entry.used = true;
        nextEntry = (nextEntry + 1) % kEntries;
        found = &entry;
    }
    const std::size_t length = found->length < size ? found->length : size - 1;
    std::memcpy(text, found->text, length);
    text[length] = '\0';
}

std::string StringUtil::LongToString(std::int64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "%" PRId64, value);
    return text;
}

// "KB" alone and "10 MB" (with a blank) deliberately read their number as 1.
std::int32_t StringUtil::SizeTextToBytes(const std::string& text) {
    if (text.empty()) return kDefaultSize;
    std::int64_t multiplier = 1;
    std::string number = text;
    const std::size_t b = text.find_first_of("bB");
    if (b != std::string::npos && b > 0) {
        const unsigned char unit = static_cast<unsigned char>(text[b - 1]);
        multiplier = MultiplierOf(unit);
        number = text.substr(0, multiplier == 1 ? b : b - 1);
    }
    std::int64_t value = 0;
    if (!ReadWholeNumber(number, value)) value = 1;
    // Sizes past 2 GiB wrap, as they always have on the 32-bit device.
    return static_cast<std::int32_t>(
        static_cast<std::uint32_t>(static_cast<std::uint64_t>(multiplier) * static_cast<std::uint64_t>(value)));
}

bool StringUtil::IsSpace(int ch) {
    return ch >= 0 && ch <= 127 && Poco::Ascii::isSpace(ch);
}

bool StringUtil::IsDigit(int ch) {
    return ch >= 0 && ch <= 127 && Poco::Ascii::isDigit(ch);
}

bool StringUtil::IsHexDigit(int ch) {
    return ch >= 0 && ch <= 127 && Poco::Ascii::isHexDigit(ch);
}

bool StringUtil::IsAlpha(int ch) {
    return ch >= 0 && ch <= 127 && Poco::Ascii::isAlpha(ch);
}

} // namespace brvo
