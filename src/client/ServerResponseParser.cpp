#include "client/ServerResponseParser.h"

#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/StringUtil.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <iostream>
#include <limits>
#include <regex>

namespace brvo {

namespace {

const std::string kTag = "ServerResponseParser";
const std::string kContentTypeHeader = "Content-Type:";
const std::string kContentLengthHeader = "Content-Length:";
const std::int64_t kMaxLength = std::numeric_limits<std::int32_t>::max();

// The regular expression engine recurses once per character it consumes, so
// a header line of some ten thousand characters would overflow the stack.
// Real header lines and Content-Type values are far shorter than this; only
// their first characters are searched.
const std::size_t kRegexWindow = 512;

const std::regex& BoundaryPattern() {
    static const std::regex pattern(".*boundary=\"([^\"]+)\"", std::regex::ECMAScript);
    return pattern;
}

const std::regex& TextPlainPattern() {
    static const std::regex pattern("Content-Type: +text/plain; +charset=([^ ]+)", std::regex::ECMAScript);
    return pattern;
}

const std::regex& ContentLengthPattern() {
    static const std::regex pattern("Content-Length: +([0-9]+)", std::regex::ECMAScript);
    return pattern;
}

std::string Window(const std::string& text) {
    return text.substr(0, std::min(text.size(), kRegexWindow));
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The run of decimal digits at `pos` as a number. A value that does not fit
// 32 bits reads as the largest one: it is a length beyond any body, which
// makes the part a truncated one.
std::int32_t ReadDecimal(const std::string& text, std::size_t pos) {
    std::int64_t value = 0;
    for (; pos < text.size(); ++pos) {
        const unsigned char ch = static_cast<unsigned char>(text[pos]);
        if (ch < '0' || ch > '9') break;
        value = value * 10 + (ch - '0');
        if (value > kMaxLength) return static_cast<std::int32_t>(kMaxLength);
    }
    return static_cast<std::int32_t>(value);
}

std::int32_t UsableLength(const char* data, std::int64_t length) {
    if (data == nullptr || length < 0) return 0;
    return static_cast<std::int32_t>(std::min(length, kMaxLength));
}

} // namespace

ServerResponseParser::ServerResponseParser(const std::string& contentType, const char* data, std::int64_t dataLength)
    : isBinary_(false), isText_(1), dataLength_(UsableLength(data, dataLength)), contentLength_(0),
      data_(reinterpret_cast<const unsigned char*>(data)), contentType_(contentType) {
    const Caught caught = GuardedCall([this] { Parse(); });
    if (caught) {
        message_ = caught.DescribeTagged("Parser error. ");
        LoggerLog::Error(kTag, message_);
    }
    // The buffer belongs to the caller and is gone once the parse is over.
    data_ = nullptr;
}

ServerResponseParser::~ServerResponseParser() = default;

std::string ServerResponseParser::ToString() const {
    if (isText_ == 0) return "data length = [" + std::to_string(dataLength_) + "]";
    return "message = [" + message_ + "]";
}

bool ServerResponseParser::OCCheckIDModel() const {
    try {
        if (hexData_.size() < 66) return false;
        return hexData_.substr(64, 2) == "00";
    } catch (...) {
        LoggerLog::Error(kTag, "OCCheckIDModel parse exception.");
        return false;
    }
}

void ServerResponseParser::Parse() {
    FindBoundary();
    const std::string delimiter = "--" + boundary_;
    const std::string closing = delimiter + "--";
    std::cout << "boundary_ ::[[" << boundary_ << std::endl;
    std::cout << "data_length_ ::[[" << dataLength_ << std::endl;

    // Lines are read from the body as text, which ends at its first NUL; the
    // content itself is copied from the raw bytes.
    std::string text;
    if (data_ != nullptr) {
        const unsigned char* stop = std::find(data_, data_ + dataLength_, 0);
        text.assign(reinterpret_cast<const char*>(data_), static_cast<std::size_t>(stop - data_));
    }
    const std::int64_t end = SkipPreamble(text, delimiter);
    std::cout << "end ::[[" << end << std::endl;
    ReadFirstPart(text, end, closing);
}

void ServerResponseParser::FindBoundary() {
    const std::string window = Window(contentType_);
    std::smatch match;
    if (std::regex_search(window, match, BoundaryPattern())) boundary_ = match[1].str();
}

// Index of the CR of the first CRLF at or after `start`, or the data length
// when none follows.
std::int64_t ServerResponseParser::FindLineEnd(std::int64_t start) const {
    for (std::int64_t i = start; i + 1 < dataLength_; ++i) {
        if (data_[i] == 13 && data_[i + 1] == 10) return i;
    }
    return dataLength_;
}

// The line from `start` to `end`. Throws std::out_of_range when `start` lies
// beyond the text (a NUL byte cut the text short); a line cut short by the
// end of the text is what there is.
std::string ServerResponseParser::LineAt(const std::string& text, std::int64_t start, std::int64_t end) const {
    const std::size_t count = end > start ? static_cast<std::size_t>(end - start) : 0;
    return text.substr(static_cast<std::size_t>(start), count);
}

// Reads lines up to the delimiter line or the end of the data; returns the
// end of the last line read.
std::int64_t ServerResponseParser::SkipPreamble(const std::string& text, const std::string& delimiter) const {
    std::int64_t start = 0;
    for (;;) {
        const std::int64_t end = FindLineEnd(start);
        const std::string line = LineAt(text, start, end);
        std::cout << "str_linexx01 ::[[" << line << std::endl;
        if (line == delimiter || end >= dataLength_) return end;
        start = end + 2;
    }
}

// Reads the headers of the part that starts after the line ending at `end`,
// then its content. Only lines closed by a CRLF count; an unterminated last
// line cannot be the empty line that opens the content.
void ServerResponseParser::ReadFirstPart(const std::string& text, std::int64_t end, const std::string& closing) {
    std::int64_t start = end + 2;
    for (;;) {
        end = FindLineEnd(start);
        if (end >= dataLength_) return;
        const std::string line = LineAt(text, start, end);
        std::cout << "str_linexx02 ::[[" << line << std::endl;
        if (line == closing) return;
        if (line.empty()) {
            ReadContent(end + 2);
            return;
        }
        ReadHeaderLine(line);
        start = end + 2;
    }
}

void ServerResponseParser::ReadHeaderLine(const std::string& line) {
    if (StartsWith(line, kContentTypeHeader)) {
        isText_ = std::regex_search(Window(line), TextPlainPattern()) ? 1 : 0;
    } else if (StartsWith(line, kContentLengthHeader)) {
        const std::string window = Window(line);
        std::smatch match;
        if (std::regex_search(window, match, ContentLengthPattern())) {
            // The digits are read from the whole line, not just the window.
            contentLength_ = ReadDecimal(line, static_cast<std::size_t>(match.position(1)));
        }
    }
}

// Copies the declared number of content bytes from `start`. A part whose
// declared length runs past the received bytes was cut short on the way: it
// gives no content at all, only the failure.
void ServerResponseParser::ReadContent(std::int64_t start) {
    if (contentLength_ == 0) {
        message_ = "No Content-Length parameter.";
        return;
    }
    const std::int64_t available = std::max<std::int64_t>(dataLength_ - start, 0);
    if (contentLength_ > available) {
        message_ = "Parser error. part is truncated. Content-Length[" + std::to_string(contentLength_) + "] received[" +
                   std::to_string(available) + "]";
        LoggerLog::Error(kTag, message_);
        return;
    }
    const std::size_t count = static_cast<std::size_t>(contentLength_);
    hexData_.clear();
    if (isText_ == 0) {
        hexData_ = StringUtil::BytesToHex(data_ + start, count);
        isBinary_ = true;
    } else {
        message_.assign(reinterpret_cast<const char*>(data_ + start), count);
    }
}

} // namespace brvo
