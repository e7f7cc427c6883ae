// Fuzz target of the schedule server answer parser. The input up to its
// first line feed is the Content-Type value, the rest is the body. The body
// is handed over in a buffer of exactly its size, so that any read past the
// received bytes is an out-of-bounds read.
//
// An input beginning with a zero byte instead describes a valid schedule
// answer: a payload derived from the rest, wrapped as the binary part of a
// multipart body whose Content-Length is exact, beyond the data, short of
// it, or huge, with or without the closing delimiter. The part must give
// exactly the declared bytes when they were received, and nothing at all
// (and no registered plant) when they were not.
#include "fuzz/FuzzEnvironment.h"
#include "fuzz/FuzzPayload.h"

#include "client/ServerResponseParser.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using brvo::fuzz::FuzzEnvironment;

namespace {

const std::string kBoundary = "pvocsim";

// The Content-Length text the part declares for `content`.
std::string Declared(brvo::fuzz::FuzzInput& input, const std::string& content) {
    const std::uint16_t delta = input.Word();
    switch (input.Byte() % 5) {
    case 0:
        return std::to_string(content.size());
    case 1:
        return std::to_string(content.size() + 1 + delta);
    case 2:
        return std::to_string(content.size() > delta ? content.size() - delta : 1);
    case 3:
        return "99999999999999999999";
    default:
        return "2147483647";
    }
}

// Parses a copy of `body` of exactly its size, so that a read past it is
// caught; the copy is gone before the parser's accessors are used.
std::unique_ptr<brvo::ServerResponseParser> ParseCopy(const std::string& contentType, const std::string& body) {
    std::unique_ptr<char[]> copy(new char[body.empty() ? 1 : body.size()]);
    std::copy(body.begin(), body.end(), copy.get());
    return std::unique_ptr<brvo::ServerResponseParser>(new brvo::ServerResponseParser(
        contentType, body.empty() ? nullptr : copy.get(), static_cast<std::int64_t>(body.size())));
}

void ScheduleAnswer(const std::uint8_t* data, std::size_t size) {
    brvo::fuzz::FuzzInput input(data + 1, size - 1);
    const int kind = input.Byte() % 2;
    const bool closing = input.Byte() % 2 == 0;
    const brvo::fuzz::FuzzPayload built = brvo::fuzz::ValidPayload(input, kind);
    const std::string content = brvo::test::BytesText(built.payload.bytes);
    const std::string declared = Declared(input, content);
    const std::string body = brvo::test::MultipartBody(
        kBoundary, {"Content-Type: application/octet-stream", "Content-Length: " + declared}, content, closing);
    const std::unique_ptr<brvo::ServerResponseParser> parser =
        ParseCopy(brvo::test::MultipartContentType(kBoundary), body);

    const std::size_t contentAt = body.find("\r\n\r\n") + 4;
    const std::size_t available = body.size() - contentAt;
    const std::string& hex = parser->GetHexData();
    if (declared.size() > 10 || std::stoull(declared) > available) {
        FuzzEnvironment::Check(!parser->IsBinary() && hex.empty(), "content of a truncated part");
        FuzzEnvironment::Check(parser->GetMessage().compare(0, 33, "Parser error. part is truncated. ") == 0,
                               "truncated part without its failure");
        FuzzEnvironment::Check(!parser->OCCheckIDModel(), "truncated part registers the plant");
    } else {
        const std::size_t length = static_cast<std::size_t>(std::stoull(declared));
        FuzzEnvironment::Check(parser->IsBinary(), "whole part not read");
        FuzzEnvironment::Check(hex == brvo::test::HexOf(std::vector<unsigned char>(
                                          body.begin() + static_cast<std::ptrdiff_t>(contentAt),
                                          body.begin() + static_cast<std::ptrdiff_t>(contentAt + length))),
                               "part content differs from the bytes sent");
        FuzzEnvironment::Check(length != content.size() || hex == built.payload.hex, "payload differs");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzEnvironment::RequireSandbox("ServerResponseParserFuzz");
    // No log: its buffer keeps lines across inputs, which makes libFuzzer
    // check for leaks after every input and slows the run many times over.
    // The messages are built all the same.
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 0 && data[0] == 0) {
        ScheduleAnswer(data, size);
        return 0;
    }
    const std::uint8_t* end = data + size;
    const std::uint8_t* newline = std::find(data, end, '\n');
    const std::string contentType = FuzzEnvironment::Text(data, static_cast<std::size_t>(newline - data));
    const std::size_t bodySize = newline == end ? 0 : static_cast<std::size_t>(end - newline - 1);
    // The parser must not keep the buffer: it is gone before the accessors run.
    const std::unique_ptr<brvo::ServerResponseParser> parsed =
        ParseCopy(contentType, newline == end ? std::string() : FuzzEnvironment::Text(newline + 1, bodySize));
    const brvo::ServerResponseParser& parser = *parsed;

    const std::string& hex = parser.GetHexData();
    FuzzEnvironment::Check(parser.GetDataLength() == static_cast<std::int32_t>(bodySize), "data length");
    FuzzEnvironment::Check(parser.GetContentType() == contentType, "content type");
    FuzzEnvironment::Check(parser.GetContentLength() >= 0, "negative content length");
    FuzzEnvironment::Check(hex.size() % 2 == 0, "odd hex text");
    FuzzEnvironment::Check(hex.size() <= 2 * bodySize, "more content than body");
    FuzzEnvironment::Check(hex.find_first_not_of("0123456789abcdef") == std::string::npos, "not lower-case hex");
    FuzzEnvironment::Check(!parser.IsBinary() || !parser.IsText(), "binary part counted as text");
    FuzzEnvironment::Check(hex.empty() || parser.IsBinary(), "hex text without a binary part");
    FuzzEnvironment::Check(parser.GetBoundary().size() <= contentType.size(), "boundary longer than its header");
    const bool registered = parser.OCCheckIDModel();
    FuzzEnvironment::Check(!registered || (hex.size() >= 66 && hex.compare(64, 2, "00") == 0), "plant-id check");
    const std::string printed = parser.ToString();
    FuzzEnvironment::Check(!printed.empty(), "empty ToString");
    return 0;
}
