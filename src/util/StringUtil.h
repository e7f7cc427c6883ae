// Conversions between bytes, hex text, decimal text and size texts.
#ifndef BRVO_UTIL_STRINGUTIL_H
#define BRVO_UTIL_STRINGUTIL_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace brvo {

class StringUtil {
public:
    // Walks `hex` two characters at a time, reads each pair as a base-16
    // number and appends it in decimal: "0a01" gives "101". A trailing odd
    // character is read alone as a one-digit hex number. Characters that are
    // not hex digits end the pair's number where they stand (a pair "zz"
    // reads as 0). Never fails.
    static std::string DecodeDigitHex(const std::string& hex);

    // Returns `size` bytes as two lower-case hex digits each; empty for a
    // null pointer or zero size.
    static std::string BytesToHex(const unsigned char* bytes, std::size_t size);
    static std::string BytesToHex(const signed char* bytes, std::size_t size);

    // Returns `size` bytes, each as one character (the bytes as they are).
    static std::string BytesToString(const unsigned char* bytes, std::size_t size);

    // Returns the decimal text of `value`.
    static std::string LongToString(std::int64_t value);

    // Writes `value` as snprintf's "%f" does into `text` of `size` bytes
    // (cut to size - 1 and terminated when longer). The last few values
    // formatted on the calling thread are kept, so a value that repeats
    // (a plant's capacity, its target power) is copied, not formatted
    // again. `size` must be at least 1.
    static void FormatFixed(double value, char* text, std::size_t size);

    // Converts a size text such as "500KB", "10MB", "2048" to bytes.
    // Empty text gives 10485760. A "b"/"B" preceded by k, m or g (either
    // case) multiplies by 1024, 1048576 or 1073741824; the number before it
    // is read like strtol with base 0 and counts as 1 when it cannot be read
    // whole (so "KB" is 1024 and "10 MB" is 1048576). The product is
    // returned as a 32-bit signed value, wrapping past 2 GiB.
    static std::int32_t SizeTextToBytes(const std::string& text);

    // ASCII class tests; characters above 127 belong to no class.
    static bool IsSpace(int ch);
    static bool IsDigit(int ch);
    static bool IsHexDigit(int ch);
    static bool IsAlpha(int ch);
};

} // namespace brvo

#endif
