// Builds schedule payloads the way the schedule server sends them, and the
// multipart answers that carry them, for tests and tools.
//
// Every payload field is a run of digit bytes: each decimal digit of the
// field's text becomes one byte holding that digit's value (the text "2022"
// becomes the bytes 2, 0, 2, 2), and the text is padded on the left with zero
// bytes to the field's width. A plant ID is therefore a text of up to 26
// digits; the model reads it back as 26 digits with the padding as leading
// "0"s. The model takes a payload as lower-case hex text, two digits a byte.
#ifndef BRVO_TESTS_SUPPORT_SCHEDULEPAYLOAD_H
#define BRVO_TESTS_SUPPORT_SCHEDULEPAYLOAD_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace brvo {
namespace test {

// Byte widths of the payload fields.
const std::size_t kRecordCountBytes = 6;
const std::size_t kReservedBytes = 10;
const std::size_t kPlantIdBytes = 26;
const std::size_t kStartBytes = 12;
const std::size_t kSlotCountBytes = 5;
const std::size_t kFixedFlagBytes = 1;
const std::size_t kChecksumBytes = 2;
const std::size_t kNextUpdateBytes = 14;

// Payload kinds: with fixed flag and next update time (update schedule), or
// without (fixed schedule).
const int kUpdateSchedule = 1;
const int kFixedSchedule = 0;

// One record of a payload. The defaults make a valid record of one day.
struct ScheduleRecord {
    // Up to 26 digits.
    std::string plantId = "01234567890123456789012345";
    // First slot's start, YYYYMMDDhhmm in server time (UTC+9).
    std::string start = "202201190900";
    // One byte per slot (0..255).
    std::vector<int> rates = std::vector<int>(48, 100);
    // Update schedule only: the fixed schedule update flag (0..9).
    int fixedFlag = 0;
    // Update schedule only: YYYYMMDDhhmmss in server time.
    std::string nextUpdate = "20220120090000";
    // When >= 0, written as the slot count instead of the number of rates.
    std::int64_t slotCountOverride = -1;
    // When >= 0, written as the checksum instead of the right one (0..99).
    int checksumOverride = -1;
    // Writes a checksum that differs from the right one.
    bool corruptChecksum = false;
};

// A built payload: its bytes and their lower-case hex text.
struct SchedulePayload {
    std::vector<unsigned char> bytes;
    std::string hex;
};

// The right checksum of a record: the sum of its rates modulo (month + day)
// of its start text.
int ScheduleChecksum(const ScheduleRecord& record);

// Builds a payload of `records` of the given kind. The record count field
// says `recordCount` when that is >= 0, else the number of records. Throws
// std::invalid_argument when a field does not fit its width or is not digits.
SchedulePayload BuildSchedulePayload(const std::vector<ScheduleRecord>& records, int kind,
                                     std::int64_t recordCount = -1);

// `text` (digits only) as digit bytes, left-padded with zero bytes to `width`.
std::vector<unsigned char> DigitBytes(const std::string& text, std::size_t width);

// Lower-case hex text of `bytes`, two digits a byte.
std::string HexOf(const std::vector<unsigned char>& bytes);

// The bytes as a string of the same bytes.
std::string BytesText(const std::vector<unsigned char>& bytes);

// A Content-Type value naming `boundary` in quotes.
std::string MultipartContentType(const std::string& boundary);

// A multipart body of one part: the delimiter line, `headers` (each a line
// without its line end), an empty line, `content`, a line end and, when
// `closing`, the closing delimiter line. Lines end with CRLF.
std::string MultipartBody(const std::string& boundary, const std::vector<std::string>& headers,
                          const std::string& content, bool closing = true);

// A multipart body carrying `content` as application/octet-stream with its
// Content-Length.
std::string BinaryPartBody(const std::string& boundary, const std::string& content);

// A multipart body carrying `text` as text/plain; charset=UTF-8 with its
// Content-Length.
std::string TextPartBody(const std::string& boundary, const std::string& text);

} // namespace test
} // namespace brvo

#endif
