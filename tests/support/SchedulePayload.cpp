#include "support/SchedulePayload.h"

#include <stdexcept>

namespace brvo {
namespace test {

namespace {

const std::string kCrlf = "\r\n";

bool IsDigit(char ch) {
    return ch >= '0' && ch <= '9';
}

int TwoDigits(const std::string& text, std::size_t pos) {
    if (text.size() < pos + 2 || !IsDigit(text[pos]) || !IsDigit(text[pos + 1])) {
        throw std::invalid_argument("not a start text: " + text);
    }
    return (text[pos] - '0') * 10 + (text[pos + 1] - '0');
}

void Append(std::vector<unsigned char>& out, const std::vector<unsigned char>& field) {
    out.insert(out.end(), field.begin(), field.end());
}

void AppendNumber(std::vector<unsigned char>& out, std::int64_t value, std::size_t width) {
    Append(out, DigitBytes(std::to_string(value), width));
}

void AppendRecord(std::vector<unsigned char>& out, const ScheduleRecord& record, int kind) {
    Append(out, std::vector<unsigned char>(kReservedBytes, 0));
    Append(out, DigitBytes(record.plantId, kPlantIdBytes));
    Append(out, DigitBytes(record.start, kStartBytes));
    const std::int64_t slots =
        record.slotCountOverride >= 0 ? record.slotCountOverride : static_cast<std::int64_t>(record.rates.size());
    AppendNumber(out, slots, kSlotCountBytes);
    for (int rate : record.rates) {
        if (rate < 0 || rate > 255) throw std::invalid_argument("rate is not a byte");
        out.push_back(static_cast<unsigned char>(rate));
    }
    if (kind == kUpdateSchedule) AppendNumber(out, record.fixedFlag, kFixedFlagBytes);
    int checksum = record.checksumOverride >= 0 ? record.checksumOverride : ScheduleChecksum(record);
    if (record.corruptChecksum) checksum = (checksum + 1) % 100;
    AppendNumber(out, checksum, kChecksumBytes);
    if (kind == kUpdateSchedule) Append(out, DigitBytes(record.nextUpdate, kNextUpdateBytes));
}

} // namespace

int ScheduleChecksum(const ScheduleRecord& record) {
    std::int64_t sum = 0;
    for (int rate : record.rates) sum += rate;
    const int divisor = TwoDigits(record.start, 4) + TwoDigits(record.start, 6);
    if (divisor == 0) throw std::invalid_argument("month and day are zero: " + record.start);
    return static_cast<int>(sum % divisor);
}

SchedulePayload BuildSchedulePayload(const std::vector<ScheduleRecord>& records, int kind, std::int64_t recordCount) {
    SchedulePayload payload;
    const std::int64_t count = recordCount >= 0 ? recordCount : static_cast<std::int64_t>(records.size());
    AppendNumber(payload.bytes, count, kRecordCountBytes);
    for (const ScheduleRecord& record : records) AppendRecord(payload.bytes, record, kind);
    payload.hex = HexOf(payload.bytes);
    return payload;
}

std::vector<unsigned char> DigitBytes(const std::string& text, std::size_t width) {
    if (text.size() > width) throw std::invalid_argument("field too long: " + text);
    std::vector<unsigned char> bytes(width - text.size(), 0);
    for (char ch : text) {
        if (!IsDigit(ch)) throw std::invalid_argument("not a digit in: " + text);
        bytes.push_back(static_cast<unsigned char>(ch - '0'));
    }
    return bytes;
}

std::string HexOf(const std::vector<unsigned char>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (unsigned char byte : bytes) {
        hex.push_back(kDigits[byte >> 4]);
        hex.push_back(kDigits[byte & 0x0f]);
    }
    return hex;
}

std::string BytesText(const std::vector<unsigned char>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

std::string MultipartContentType(const std::string& boundary) {
    return "multipart/form-data; boundary=\"" + boundary + "\"";
}

std::string MultipartBody(const std::string& boundary, const std::vector<std::string>& headers,
                          const std::string& content, bool closing) {
    std::string body = "--" + boundary + kCrlf;
    for (const std::string& header : headers) body += header + kCrlf;
    body += kCrlf + content + kCrlf;
    if (closing) body += "--" + boundary + "--" + kCrlf;
    return body;
}

std::string BinaryPartBody(const std::string& boundary, const std::string& content) {
    return MultipartBody(
        boundary, {"Content-Type: application/octet-stream", "Content-Length: " + std::to_string(content.size())},
        content);
}

std::string TextPartBody(const std::string& boundary, const std::string& text) {
    return MultipartBody(
        boundary, {"Content-Type: text/plain; charset=UTF-8", "Content-Length: " + std::to_string(text.size())}, text);
}

} // namespace test
} // namespace brvo
