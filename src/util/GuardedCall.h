// Runs a piece of work so that nothing it throws goes further: the caller
// gets what was caught as a value and decides what to log and return. Every
// boundary of the daemon that must not let an exception through (a database
// operation, a schedule flow, a settings load) goes through here, so that
// the catch clauses and the texts they make live in one place.
#ifndef BRVO_UTIL_GUARDEDCALL_H
#define BRVO_UTIL_GUARDEDCALL_H

#include <Poco/Exception.h>

#include <exception>
#include <string>
#include <utility>

namespace brvo {

// What a guarded call caught.
class Caught {
public:
    // What kind of exception ended the call.
    enum Kind {
        kNothing,  // the call returned
        kLibrary,  // a Poco::Exception; text is its display text
        kStandard, // another std::exception; text is its what()
        kUnknown,  // anything else; text is empty
    };

    // Nothing caught.
    Caught() : kind_(kNothing) {}
    // `kind` caught, with its text.
    Caught(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}

    // True when the call threw.
    explicit operator bool() const { return kind_ != kNothing; }
    // What kind of exception it was.
    Kind GetKind() const { return kind_; }
    // The library's display text or the standard exception's what().
    const std::string& GetText() const { return text_; }

    // `prefix` + "[" + display text + "]" for a library exception,
    // `prefix` + "exception" for any other.
    std::string Describe(const std::string& prefix) const;
    // `prefix` + "EXCEPTION[" + display text + "]" for a library exception,
    // `prefix` + "exception" for any other.
    std::string DescribeTagged(const std::string& prefix) const;

private:
    Kind kind_;
    std::string text_;
};

// Runs `body()` and returns what it threw; Caught() when it returned.
template <typename Body>
Caught GuardedCall(Body&& body) {
    try {
        std::forward<Body>(body)();
        return Caught();
    } catch (const Poco::Exception& e) {
        return Caught(Caught::kLibrary, e.displayText());
    } catch (const std::exception& e) {
        return Caught(Caught::kStandard, e.what());
    } catch (...) {
        return Caught(Caught::kUnknown, std::string());
    }
}

} // namespace brvo

#endif
