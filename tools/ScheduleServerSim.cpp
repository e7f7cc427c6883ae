// schedule-server-sim: a stand-in for the grid operator's schedule server,
// for demos, commissioning and tests. It answers pvocd's form POSTs in the
// server's multipart format: update schedules ("0000"), fixed schedules
// ("999" + flag) and plant-ID checks ("8888"), built from a simple
// description, with switches for the failures a real server shows.
#include "support/SchedulePayload.h"
#include "util/TimeStamp.h"

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/StringTokenizer.h>
#include <Poco/Thread.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace {

const char kUsage[] =
    "usage: schedule-server-sim [options]\n"
    "Serves the schedule server's answers on 127.0.0.1.\n"
    "  --port N              port (default 8080)\n"
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
    "  --close-early         announce the full length, send half the body and close\n";

struct Settings {
    int port = 8080;
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
};

Settings settings;

std::vector<int> ParseRates(const std::string& text) {
    std::vector<int> rates;
    const std::size_t times = text.find('x');
    if (times != std::string::npos) {
        rates.assign(static_cast<std::size_t>(std::atoi(text.substr(0, times).c_str())),
                     std::atoi(text.substr(times + 1).c_str()));
        return rates;
    }
    Poco::StringTokenizer parts(text, ",", Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY);
    for (const std::string& part : parts) rates.push_back(std::atoi(part.c_str()));
    return rates;
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
        std::cout << "request " << request.getMethod() << " " << request.getURI() << " power_plant_id="
                  << form.get("power_plant_id", "") << " mac_address=" << form.get("mac_address", "")
                  << " schedule_kbn=" << kbn << std::endl;
        if (settings.delayMs > 0) Poco::Thread::sleep(settings.delayMs);
        response.setStatus(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(settings.status));
        const std::string boundary = "pvocsim";
        response.setContentType(brvo::test::MultipartContentType(boundary));
        const std::string body = settings.text.empty()
                                     ? brvo::test::BinaryPartBody(boundary, Payload(kbn))
                                     : brvo::test::TextPartBody(boundary, settings.text);
        response.setContentLength64(static_cast<Poco::Int64>(body.size()));
        std::ostream& out = response.send();
        out << (settings.closeEarly ? body.substr(0, body.size() / 2) : body);
        out.flush();
        std::cout << "answer status " << settings.status << ", " << body.size() << " bytes"
                  << (settings.closeEarly ? " (cut at half)" : "") << std::endl;
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

bool Parse(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--port" && hasValue) settings.port = std::atoi(argv[++i]);
        else if (arg == "--plant-id" && hasValue) settings.plantId = argv[++i];
        else if (arg == "--start" && hasValue) settings.start = argv[++i];
        else if (arg == "--rates" && hasValue) settings.rates = ParseRates(argv[++i]);
        else if (arg == "--fixed-rates" && hasValue) settings.fixedRates = ParseRates(argv[++i]);
        else if (arg == "--next-update" && hasValue) settings.nextUpdate = argv[++i];
        else if (arg == "--fixed-flag" && hasValue) settings.fixedFlag = std::atoi(argv[++i]);
        else if (arg == "--unregistered") settings.registered = false;
        else if (arg == "--status" && hasValue) settings.status = std::atoi(argv[++i]);
        else if (arg == "--bad-checksum") settings.badChecksum = true;
        else if (arg == "--text" && hasValue) settings.text = argv[++i];
        else if (arg == "--delay-ms" && hasValue) settings.delayMs = std::atoi(argv[++i]);
        else if (arg == "--close-early") settings.closeEarly = true;
        else return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (!Parse(argc, argv)) {
        std::cerr << kUsage;
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
    Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(settings.port)));
    Poco::Net::HTTPServer server(new Factory(), socket, new Poco::Net::HTTPServerParams());
    server.start();
    std::cout << "schedule-server-sim listening on http://127.0.0.1:" << socket.address().port()
              << "/ plant " << settings.plantId << ", start " << settings.start << " (server time), "
              << settings.rates.size() << " slots" << std::endl;
    while (!stopRequested) Poco::Thread::sleep(100);
    server.stopAll(true);
    return 0;
}
