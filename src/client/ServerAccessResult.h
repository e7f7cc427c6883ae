// Outcome of one exchange with the schedule server: whether an answer came
// that could be parsed, the HTTP status, a failure text, the parser of the
// answer once attached, and how long the server asked to be left alone.
#ifndef BRVO_CLIENT_SERVERACCESSRESULT_H
#define BRVO_CLIENT_SERVERACCESSRESULT_H

#include <cstdint>
#include <memory>
#include <string>

namespace brvo {

class ServerResponseParser;

class ServerAccessResult {
public:
    // The shared results of an exchange, one per kind of outcome.
    // An answer of status 200, handed to `parser`.
    static std::shared_ptr<ServerAccessResult> Answered(std::int32_t statusCode,
                                                        const std::shared_ptr<ServerResponseParser>& parser);
    // A failed exchange: an answer of another HTTP status, or none (status
    // 0), with what went wrong.
    static std::shared_ptr<ServerAccessResult> Failed(std::int32_t statusCode, const std::string& failureReason);

    // A result with the given success flag, HTTP status code (0 when the
    // exchange failed before a status came) and failure text; no parser.
    ServerAccessResult(bool result, std::int32_t statusCode, const std::string& failureReason);
    virtual ~ServerAccessResult();

    // True when the answer could be handed to the parser.
    bool IsResult() const { return result_; }
    // What went wrong; empty when nothing did.
    const std::string& GetFailureReason() const { return failureReason_; }
    // The parser of the answer; null when none is attached.
    std::shared_ptr<ServerResponseParser> GetResponseParser() const { return responseParser_; }
    // The HTTP status code.
    std::int32_t GetStatusCode() const { return statusCode_; }
    // Seconds to wait as the Retry-After of a 429 or 503 answer; -1: none.
    std::int64_t GetRetryAfterSeconds() const { return retryAfterSeconds_; }

    // Attaches the parser of the answer (null detaches).
    void SetResponseParser(const std::shared_ptr<ServerResponseParser>& parser);
    // Sets what GetRetryAfterSeconds returns (-1: none).
    void SetRetryAfterSeconds(std::int64_t seconds);

    // Printed form for log lines: "ServerAccessResult [true]  Failure Reason:
    // StatusCode:200 Response Parser:" followed by the parser's printed form
    // when a parser is attached. The Retry-After is not printed: the log
    // line keeps its fields.
    std::string ToString() const;

private:
    bool result_;
    std::string failureReason_;
    std::shared_ptr<ServerResponseParser> responseParser_;
    std::int32_t statusCode_;
    std::int64_t retryAfterSeconds_;
};

} // namespace brvo

#endif
