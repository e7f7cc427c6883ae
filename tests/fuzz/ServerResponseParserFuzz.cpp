// Fuzz target of the schedule server answer parser. The input up to its
// first line feed is the Content-Type value, the rest is the body. The body
// is handed over in a buffer of exactly its size, so that any read past the
// received bytes is an out-of-bounds read.
#include "fuzz/FuzzEnvironment.h"

#include "client/ServerResponseParser.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

using brvo::fuzz::FuzzEnvironment;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzEnvironment::RequireSandbox("ServerResponseParserFuzz");
    // No log: its buffer keeps lines across inputs, which makes libFuzzer
    // check for leaks after every input and slows the run many times over.
    // The messages are built all the same.
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::uint8_t* end = data + size;
    const std::uint8_t* newline = std::find(data, end, '\n');
    const std::string contentType = FuzzEnvironment::Text(data, static_cast<std::size_t>(newline - data));
    const std::size_t bodySize = newline == end ? 0 : static_cast<std::size_t>(end - newline - 1);
    std::unique_ptr<char[]> body(new char[bodySize == 0 ? 1 : bodySize]);
    if (bodySize > 0) std::copy(newline + 1, end, body.get());

    const brvo::ServerResponseParser parser(contentType, bodySize == 0 ? nullptr : body.get(),
                                            static_cast<std::int64_t>(bodySize));
    // The parser must not keep the buffer: it is gone before the accessors run.
    body.reset();

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
