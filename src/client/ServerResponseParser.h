// Reads the first part of the schedule server's multipart answer: the part's
// headers, then its content, either as a text message from the server or, for
// any other content type, as lower-case hexadecimal text (two digits a byte)
// for the schedule model and the plant-id check. The whole parse runs in the
// constructor; the outcome is read through the accessors. Diagnostic traces
// go to standard output, failures to the log (tag "ServerResponseParser").
#ifndef BRVO_CLIENT_SERVERRESPONSEPARSER_H
#define BRVO_CLIENT_SERVERRESPONSEPARSER_H

#include <cstdint>
#include <string>

namespace brvo {

class ServerResponseParser {
public:
    // Parses `dataLength` body bytes at `data` under the response's
    // Content-Type value `contentType`. `data` is read during construction
    // only and never afterwards; a null `data` or a negative length counts as
    // an empty body, a length above 2^31-1 is cut to that. Never throws: a
    // failure leaves its text in GetMessage().
    ServerResponseParser(const std::string& contentType, const char* data, std::int64_t dataLength);
    virtual ~ServerResponseParser();

    // True when a non-text part was extracted into GetHexData().
    bool IsBinary() const { return isBinary_; }
    // True while the part counts as text: no Content-Type header seen, or
    // one naming text/plain with a charset.
    bool IsText() const { return isText_ != 0; }
    // The number of body bytes received.
    std::int32_t GetDataLength() const { return dataLength_; }
    // The part's declared Content-Length; 0 when none was read. A declared
    // value beyond 2^31-1 reads as 2^31-1.
    std::int32_t GetContentLength() const { return contentLength_; }
    // The content of a text part, or the failure text; empty when neither.
    // A part declaring more bytes than were received gives no content, only
    // "Parser error. part is truncated. ..." here.
    const std::string& GetMessage() const { return message_; }
    // The content of a non-text part as lower-case hex; empty when none.
    const std::string& GetHexData() const { return hexData_; }
    // The response's Content-Type value as received.
    const std::string& GetContentType() const { return contentType_; }
    // The multipart boundary; empty when the Content-Type names none.
    const std::string& GetBoundary() const { return boundary_; }

    // "data length = [n]" for a binary answer, "message = [text]" for a text
    // answer.
    std::string ToString() const;

    // Plant-id check: true only when byte 32 of the binary part exists and is
    // zero. False otherwise, and on any failure (logged).
    bool OCCheckIDModel() const;

private:
    void Parse();
    void FindBoundary();
    std::int64_t FindLineEnd(std::int64_t start) const;
    std::string LineAt(const std::string& text, std::int64_t start, std::int64_t end) const;
    std::int64_t SkipPreamble(const std::string& text, const std::string& delimiter) const;
    void ReadFirstPart(const std::string& text, std::int64_t end, const std::string& closing);
    void ReadHeaderLine(const std::string& line);
    void ReadContent(std::int64_t start);

    bool isBinary_;
    std::int32_t isText_;
    std::int32_t dataLength_;
    std::int32_t contentLength_;
    const unsigned char* data_;
    std::string message_;
    std::string hexData_;
    std::string contentType_;
    std::string boundary_;
};

} // namespace brvo

#endif
