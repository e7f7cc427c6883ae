// schedule-server-sim: a stand-in for the grid operator's schedule server,
// for demos, commissioning and tests. It answers pvocd's form POSTs in the
// server's multipart format: update schedules ("0000"), fixed schedules
// ("999" + flag) and plant-ID checks ("8888"), built from a simple
// description, with switches for the failures a real server shows.
#include "support/SchedulePayload.h"
#include "util/TimeStamp.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/StringTokenizer.h>
#include <Poco/Thread.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

const char kUsage[] = "usage: schedule-server-sim [options]\n"
                      "Serves the schedule server's answers (on 127.0.0.1 unless --listen says otherwise).\n"
                      "  --port N              port (default 8080)\n"
                      "  --listen ADDR         address to listen on: HOST:PORT, or :PORT for every address\n"
                      "                        (default 127.0.0.1 and --port)\n"
                      "  --tls CERT KEY        serve HTTPS with the PEM certificate CERT and its key KEY\n"
                      "  --plant-id DIGITS     plant ID of the schedules (default 777)\n"
                      "  --start YYYYMMDDhhmm  first slot in server time, UTC+9 (default: today 00:00 server time)\n"
                      "  --rates LIST          rates in percent: \"60,60,30\" or \"48x60\" (default 48x60)\n"
                      "  --fixed-rates LIST    rates of the fixed schedule (default: the same)\n"
                      "  --next-update YYYYMMDDhhmmss  next update time, server time (default: start + 1 day)\n"
                      "  --fixed-flag N        fixed schedule update flag, 0-9 (default 3)\n"
                      "  --unregistered        plant-ID checks answer \"not registered\"\n"
                      "failures:\n"
                      "  --status N            answer every request with HTTP status N\n"
                      "  --bad-checksum        send a wrong checksum\n"
                      "  --text MSG            answer with a text part MSG instead of a schedule\n"
                      "  --delay-ms N          wait N ms before answering\n"
                      "  --close-early         announce the full length, send half the body and close\n"
                      "  --retry-after SECONDS add \"Retry-After: SECONDS\" to every answer, 0-1000000000\n"
                      "                        (pvocd reads it on 429 and 503 answers only, see --status)\n";

struct Settings {
    std::string host = "127.0.0.1";
    int port = 8080;
    std::string certificate;
    std::string key;
    std::string plantId = "777";
    std::string start;
    std::vector<int> rates = std::vector<int>(48, 60);
    std::vector<int> fixedRates;
    std::string nextUpdate;
    int fixedFlag = 3;
    bool registered = true;
    int status = 200;
    bool badChecksum = false;
    std::string text;
    int delayMs = 0;
    bool closeEarly = false;
    // The Retry-After header's value; -1: none sent.
    int retryAfter = -1;
};

Settings settings;

// A whole decimal number in [low, high]; throws std::invalid_argument
// naming `what` otherwise.
int Number(const std::string& text, int low, int high, const std::string& what) {
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value < low || value > high) {
        throw std::invalid_argument(what + " must be a number from " + std::to_string(low) + " to " +
                                    std::to_string(high) + ", not \"" + text + "\"");
    }
    return static_cast<int>(value);
}

// "60,60,30" or "48x60"; every rate one byte (0 to 255).
std::vector<int> ParseRates(const std::string& text) {
    std::vector<int> rates;
    const std::size_t times = text.find('x');
    if (times != std::string::npos && text.find(',') == std::string::npos) {
        rates.assign(static_cast<std::size_t>(Number(text.substr(0, times), 1, 99999, "slot count")),
                     Number(text.substr(times + 1), 0, 255, "rate"));
        return rates;
    }
    Poco::StringTokenizer parts(text, ",", Poco::StringTokenizer::TOK_TRIM);
    for (const std::string& part : parts) rates.push_back(Number(part, 0, 255, "rate"));
    if (rates.empty()) throw std::invalid_argument("no rates given");
    return rates;
}

void RequireDigits(const std::string& text, std::size_t low, std::size_t high, const std::string& what) {
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || text.size() < low || text.size() > high) {
        throw std::invalid_argument(what + " must be " + std::to_string(low) +
                                    (low == high ? "" : " to " + std::to_string(high)) + " digits, not \"" + text +
                                    "\"");
    }
}

std::string Payload(const std::string& kbn) {
    brvo::test::ScheduleRecord record;
    record.plantId = settings.plantId;
    record.start = settings.start;
    record.fixedFlag = settings.fixedFlag;
    record.nextUpdate = settings.nextUpdate;
    if (kbn == "8888") {
        std::string check(40, '\0');
        check[32] = settings.registered ? '\0' : '\1';
        return check;
    }
    const bool fixed = kbn != "0000";
    record.rates = fixed && !settings.fixedRates.empty() ? settings.fixedRates : settings.rates;
    if (settings.badChecksum) record.corruptChecksum = true;
    return brvo::test::BytesText(
        brvo::test::BuildSchedulePayload({record}, fixed ? brvo::test::kFixedSchedule : brvo::test::kUpdateSchedule)
            .bytes);
}

class Handler : public Poco::Net::HTTPRequestHandler {
public:
    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override {
        Poco::Net::HTMLForm form(request, request.stream());
        const std::string kbn = form.get("schedule_kbn", "");
        std::cout << "request " << request.getMethod() << " " << request.getURI()
                  << " power_plant_id=" << form.get("power_plant_id", "")
                  << " mac_address=" << form.get("mac_address", "") << " schedule_kbn=" << kbn << std::endl;
        if (settings.delayMs > 0) Poco::Thread::sleep(settings.delayMs);
        response.setStatus(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(settings.status));
        const std::string boundary = "pvocsim";
        response.setContentType(brvo::test::MultipartContentType(boundary));
        const std::string body = settings.text.empty() ? brvo::test::BinaryPartBody(boundary, Payload(kbn))
                                                       : brvo::test::TextPartBody(boundary, settings.text);
        response.setContentLength64(static_cast<Poco::Int64>(body.size()));
        if (settings.retryAfter >= 0) response.set("Retry-After", std::to_string(settings.retryAfter));
        std::ostream& out = response.send();
        out << (settings.closeEarly ? body.substr(0, body.size() / 2) : body);
        out.flush();
        std::cout << "answer status " << settings.status << ", " << body.size() << " bytes"
                  << (settings.closeEarly ? " (cut at half)" : "")
                  << (settings.retryAfter >= 0 ? ", Retry-After " + std::to_string(settings.retryAfter) : "")
                  << std::endl;
        if (settings.closeEarly) request.stream().setstate(std::ios::badbit);
    }
};

class Factory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
        return new Handler();
    }
};

volatile std::sig_atomic_t stopRequested = 0;

void OnSignal(int) {
    stopRequested = 1;
}

// "HOST:PORT" or ":PORT" (every address); an IPv6 host stands in brackets.
void ParseListen(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        throw std::invalid_argument("--listen must be HOST:PORT or :PORT, not \"" + text + "\"");
    std::string host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    settings.host = host.empty() ? std::string("0.0.0.0") : host;
    settings.port = Number(text.substr(colon + 1), 0, 65535, "--listen port");
    try {
        Poco::Net::SocketAddress(settings.host, static_cast<Poco::UInt16>(settings.port));
    } catch (const Poco::Exception& e) {
        throw std::invalid_argument("--listen address \"" + text + "\" cannot be used: " + e.displayText());
    }
}

void RequireFile(const std::string& path, const std::string& what) {
    std::FILE* file = path.empty() ? nullptr : std::fopen(path.c_str(), "r");
    if (file == nullptr) throw std::invalid_argument(what + " \"" + path + "\" cannot be read");
    std::fclose(file);
}

bool Parse(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        const std::string value = hasValue ? argv[i + 1] : std::string();
        if (arg == "--unregistered") {
            settings.registered = false;
            continue;
        }
        if (arg == "--bad-checksum") {
            settings.badChecksum = true;
            continue;
        }
        if (arg == "--close-early") {
            settings.closeEarly = true;
            continue;
        }
        if (arg == "--tls") {
            if (i + 2 >= argc) throw std::invalid_argument("--tls needs CERT and KEY");
            settings.certificate = argv[++i];
            settings.key = argv[++i];
            RequireFile(settings.certificate, "--tls certificate");
            RequireFile(settings.key, "--tls key");
            continue;
        }
        if (!hasValue) throw std::invalid_argument("unknown option or missing value: " + arg);
        ++i;
        if (arg == "--port")
            settings.port = Number(value, 0, 65535, "--port");
        else if (arg == "--listen")
            ParseListen(value);
        else if (arg == "--plant-id") {
            RequireDigits(value, 1, 26, "--plant-id");
            settings.plantId = value;
        } else if (arg == "--start") {
            RequireDigits(value, 12, 12, "--start (YYYYMMDDhhmm)");
            settings.start = value;
        } else if (arg == "--rates")
            settings.rates = ParseRates(value);
        else if (arg == "--fixed-rates")
            settings.fixedRates = ParseRates(value);
        else if (arg == "--next-update") {
            RequireDigits(value, 14, 14, "--next-update (YYYYMMDDhhmmss)");
            settings.nextUpdate = value;
        } else if (arg == "--fixed-flag")
            settings.fixedFlag = Number(value, 0, 9, "--fixed-flag");
        else if (arg == "--status")
            settings.status = Number(value, 100, 599, "--status");
        else if (arg == "--text")
            settings.text = value;
        else if (arg == "--delay-ms")
            settings.delayMs = Number(value, 0, 3600000, "--delay-ms");
        else if (arg == "--retry-after")
            settings.retryAfter = Number(value, 0, 1000000000, "--retry-after");
        else
            throw std::invalid_argument("unknown option: " + arg);
    }
    return true;
}

// The TLS context of --tls; null without it. Throws std::invalid_argument
// when the certificate or the key does not load.
Poco::Net::Context::Ptr TlsContext() {
    if (settings.certificate.empty()) return nullptr;
    try {
        return new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, settings.key, settings.certificate, "",
                                      Poco::Net::Context::VERIFY_NONE);
    } catch (const Poco::Exception& e) {
        throw std::invalid_argument("--tls certificate or key cannot be used: " + e.displayText());
    }
}

// A plain socket, or with a TLS context one that does the server's side of TLS.
Poco::Net::ServerSocket ListeningSocket(const Poco::Net::Context::Ptr& context) {
    const Poco::Net::SocketAddress address(settings.host, static_cast<Poco::UInt16>(settings.port));
    if (context.isNull()) return Poco::Net::ServerSocket(address);
    return Poco::Net::SecureServerSocket(address, 64, context);
}

} // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--help") {
            std::cout << kUsage;
            return 0;
        }
    }
    Poco::Net::Context::Ptr context;
    try {
        Parse(argc, argv);
        context = TlsContext();
    } catch (const std::invalid_argument& e) {
        std::cerr << "schedule-server-sim: " << e.what() << "\n" << kUsage;
        return 2;
    }
    // Default start: today 00:00 in server time (UTC+9).
    brvo::TimeStamp serverNow;
    serverNow.AddServerOffset();
    if (settings.start.empty()) settings.start = serverNow.Format("%Y%m%d") + "0000";
    if (settings.nextUpdate.empty()) {
        std::shared_ptr<brvo::TimeStamp> start = brvo::TimeStamp::Parse("%Y%m%d%H%M", settings.start);
        settings.nextUpdate = start ? brvo::TimeStamp::FromEpochSeconds(start->EpochSeconds() + 86400)->FormatCompact()
                                    : serverNow.FormatCompact();
    }
    std::signal(SIGTERM, OnSignal);
    std::signal(SIGINT, OnSignal);
    Poco::Net::ServerSocket socket;
    try {
        socket = ListeningSocket(context);
    } catch (const Poco::Exception& e) {
        std::cerr << "schedule-server-sim: cannot listen on " << settings.host << ":" << settings.port << ": "
                  << e.displayText() << std::endl;
        return 1;
    }
    Poco::Net::HTTPServer server(new Factory(), socket, new Poco::Net::HTTPServerParams());
    server.start();
    std::cout << "schedule-server-sim listening on " << (settings.certificate.empty() ? "http" : "https") << "://"
              << socket.address().toString() << "/"
              << " plant " << settings.plantId << ", start " << settings.start << " (server time), "
              << settings.rates.size() << " slots" << std::endl;
    while (!stopRequested) Poco::Thread::sleep(100);
    server.stopAll(true);
    return 0;
}
