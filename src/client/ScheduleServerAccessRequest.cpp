#include "client/ScheduleServerAccessRequest.h"

#include "client/RetryAfter.h"
#include "client/ScheduleServerAccessRequestCallback.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"

#include "util/FileUtil.h"
#include "util/ScopedLock.h"
#include "util/SystemClock.h"

#include <Poco/Clock.h>
#include <Poco/Crypto/X509Certificate.h>
#include <Poco/DirectoryIterator.h>
#include <Poco/Event.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/String.h>
#include <Poco/Thread.h>
#include <Poco/URI.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <sys/socket.h>
#include <vector>

namespace brvo {

namespace {

const std::string kTag = "ScheduleServerAccessRequest";
const std::string kMacAddressFile = "/sys/class/net/eth0/address";
// The ceiling of each single connect, send and receive.
const Poco::Timespan kSessionTimeout(20 * 60, 0);
// The longest one exchange may take as a whole: a server that trickles its
// answer would otherwise hold a worker for as long as it likes.
const Poco::Timespan kExchangeDeadline(60, 0);
const std::size_t kChunkSize = 1024;
// Largest answer the device takes in. Two years of day records are some
// 86 KB with their part headers (one record of a year some 18 KB); an
// announced length beyond this is refused instead of reserving memory.
const Poco::Int64 kMaxAnswerBytes = 256 * 1024;

// The TLS client context of an https server address: the peer's
// certificate must chain to the system's CA store or to a certificate in
// the certificates directory, and must name the host.
Poco::Net::Context::Ptr TlsContext() {
    Poco::Net::Context::Ptr context = new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, "", "", "",
                                                             Poco::Net::Context::VERIFY_STRICT, 9, true);
    const std::string directory = FileUtil::GetCertificatesDirectory();
    if (!FileUtil::Exists(directory)) return context;
    for (Poco::DirectoryIterator it(directory), end; it != end; ++it) {
        const std::string name = it.name();
        const bool certificate = name.size() > 4 && (name.compare(name.size() - 4, 4, ".pem") == 0 ||
                                                     name.compare(name.size() - 4, 4, ".crt") == 0);
        if (!certificate || !it->isFile()) continue;
        try {
            context->addCertificateAuthority(Poco::Crypto::X509Certificate(it->path()));
        } catch (const Poco::Exception& e) {
            LoggerLog::Warning(kTag, "certificate not usable. [" + it->path() + "] [" + e.displayText() + "]");
        }
    }
    return context;
}

// The time left until `deadline`, rounded up to the millisecond, but no
// more than the ceiling of one operation; zero once it has passed. The
// socket waits count whole milliseconds and drop the rest: without the
// rounding, a wait that runs out with the deadline would end just before
// it and be reported as the library's own time-out, not as the deadline.
Poco::Timespan TimeLeft(const Poco::Clock& deadline) {
    const Poco::Clock::ClockDiff left = deadline - Poco::Clock();
    if (left <= 0) return Poco::Timespan(0);
    const Poco::Clock::ClockDiff wholeMilliseconds = (left + 999) / 1000 * 1000;
    return std::min(Poco::Timespan(wholeMilliseconds), kSessionTimeout);
}

// Connects a socket of our own to `address`, handed to `publish` before it
// connects so that Abort and the deadline can shut down a connect that
// hangs. Each later send and receive waits no longer than the time left.
Poco::Net::StreamSocket ConnectSocket(const Poco::Net::SocketAddress& address, const Poco::Clock& deadline,
                                      const std::function<void(int)>& publish) {
    Poco::Net::StreamSocket socket(address.family());
    publish(static_cast<int>(socket.impl()->sockfd()));
    const Poco::Timespan left = TimeLeft(deadline);
    if (left == 0) throw Poco::TimeoutException("no time left to connect");
    socket.connect(address, left);
    socket.setReceiveTimeout(left);
    socket.setSendTimeout(left);
    socket.setNoDelay(true);
    return socket;
}

// A plain HTTP session on a socket of ConnectSocket.
class AbortableSession : public Poco::Net::HTTPClientSession {
public:
    AbortableSession(const Poco::URI& uri, const Poco::Clock& deadline, std::function<void(int)> publish)
        : HTTPClientSession(uri.getHost(), uri.getPort()), deadline_(deadline), publish_(std::move(publish)) {}

protected:
    void connect(const Poco::Net::SocketAddress& address) override {
        attachSocket(ConnectSocket(address, deadline_, publish_));
    }

private:
    Poco::Clock deadline_;
    std::function<void(int)> publish_;
};

// A TLS session on a socket of ConnectSocket: the handshake runs on that
// socket, so Abort and the deadline reach it too.
class AbortableTlsSession : public Poco::Net::HTTPSClientSession {
public:
    AbortableTlsSession(const Poco::URI& uri, const Poco::Net::Context::Ptr& context, const Poco::Clock& deadline,
                        std::function<void(int)> publish)
        : HTTPSClientSession(uri.getHost(), uri.getPort(), context), context_(context), deadline_(deadline),
          publish_(std::move(publish)) {}

protected:
    void connect(const Poco::Net::SocketAddress& address) override {
        const Poco::Net::StreamSocket plain = ConnectSocket(address, deadline_, publish_);
        attachSocket(Poco::Net::SecureStreamSocket::attach(plain, getHost(), context_));
    }

private:
    Poco::Net::Context::Ptr context_;
    Poco::Clock deadline_;
    std::function<void(int)> publish_;
};

// The session for `uri`: TLS for https, plain HTTP otherwise.
std::unique_ptr<Poco::Net::HTTPClientSession> OpenSession(const Poco::URI& uri, const Poco::Clock& deadline,
                                                          const std::function<void(int)>& publish) {
    if (uri.getScheme() == "https") {
        return std::unique_ptr<Poco::Net::HTTPClientSession>(
            new AbortableTlsSession(uri, TlsContext(), deadline, publish));
    }
    return std::unique_ptr<Poco::Net::HTTPClientSession>(new AbortableSession(uri, deadline, publish));
}

// Calls `expire` once `deadline` has passed on the monotonic clock, unless
// it is destroyed first. It waits in steps of at most a second, so that a
// jump of the wall clock cannot stretch the wait.
class DeadlineWatch {
public:
    DeadlineWatch(const Poco::Clock& deadline, std::function<void()> expire)
        : deadline_(deadline), expire_(std::move(expire)), ended_(Poco::Event::EVENT_MANUALRESET) {
        thread_.startFunc([this] { Watch(); });
    }
    ~DeadlineWatch() {
        ended_.set();
        thread_.join();
    }

private:
    void Watch() {
        for (;;) {
            const Poco::Clock::ClockDiff left = deadline_ - Poco::Clock();
            if (left <= 0) break;
            if (ended_.tryWait(static_cast<long>(std::min<Poco::Clock::ClockDiff>(left / 1000 + 1, 1000)))) return;
        }
        expire_();
    }

    Poco::Clock deadline_;
    std::function<void()> expire_;
    Poco::Event ended_;
    Poco::Thread thread_;
};

// The value of hex digit `ch`, or -1.
int HexValue(char ch) {
    if (ch >= '0' && ch <= '9') return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    return -1;
}

bool IsControl(int ch) {
    return ch < 0x20 || ch == 0x7f;
}

// Whether `text` holds a control character, raw or percent-encoded: a
// decoded CR LF would end the request line early and start header lines of
// the server address's choosing.
bool HasControlCharacter(const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (IsControl(static_cast<unsigned char>(text[i]))) return true;
        if (text[i] != '%' || i + 2 >= text.size()) continue;
        const int high = HexValue(text[i + 1]);
        const int low = HexValue(text[i + 2]);
        if (high >= 0 && low >= 0 && IsControl(high * 16 + low)) return true;
    }
    return false;
}

// The server address as a URI, or a Poco::SyntaxException when it is not
// one the device may ask: other schemes than http and https, an empty host
// and control characters are refused before anything is sent.
Poco::URI ServerUri(const std::string& url) {
    if (HasControlCharacter(url)) throw Poco::SyntaxException("server address holds a control character");
    const Poco::URI uri(url);
    if (uri.getScheme() != "http" && uri.getScheme() != "https") {
        throw Poco::SyntaxException("server address is neither http nor https", uri.getScheme());
    }
    if (uri.getHost().empty()) throw Poco::SyntaxException("server address names no host");
    return uri;
}

// Whether `ch` is sent as it is in a form value: ASCII letters and digits
// and "-._~", whatever the locale says.
bool IsPlainFormCharacter(char ch) {
    return (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z') || ch == '-' || ch == '.' ||
           ch == '_' || ch == '~';
}

// `value` as a form value: plain characters as they are, every other byte
// as "%" and two upper-case hex digits.
std::string FormValue(const std::string& value) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char ch : value) {
        const unsigned char byte = static_cast<unsigned char>(ch);
        if (IsPlainFormCharacter(ch)) {
            encoded += ch;
        } else {
            encoded += '%';
            encoded += kHex[byte >> 4];
            encoded += kHex[byte & 0x0f];
        }
    }
    return encoded;
}

// An answer whose length is unknown; reported as an exchange that failed
// with an exception that is not the library's.
class UnknownLength : public std::exception {};

// Withdraws the socket Abort may shut down before the session that owns it
// is destroyed.
class SocketTrack {
public:
    explicit SocketTrack(std::function<void(int)> publish) : publish_(std::move(publish)) {}
    ~SocketTrack() { publish_(-1); }

private:
    std::function<void(int)> publish_;
};

// `budget` as text: whole seconds as "60 s", anything else in milliseconds.
std::string BudgetText(const Poco::Timespan& budget) {
    if (budget.totalMilliseconds() % 1000 == 0) return std::to_string(budget.totalSeconds()) + " s";
    return std::to_string(budget.totalMilliseconds()) + " ms";
}

// Reads exactly `length` bytes of the answer's body from `in`. A body that
// ends before (the peer closed, or the connection broke) fails with the
// count and the cause. Nothing beyond `length` is asked for.
std::vector<char> ReadBody(std::istream& in, const Poco::Net::HTTPClientSession& session, Poco::Int64 length) {
    const std::size_t total = static_cast<std::size_t>(length);
    std::vector<char> buffer(total + 1, 0);
    std::size_t filled = 0;
    while (filled < total) {
        in.read(buffer.data() + filled, static_cast<std::streamsize>(std::min(kChunkSize, total - filled)));
        const std::size_t got = static_cast<std::size_t>(in.gcount());
        if (got == 0) break;
        filled += got;
    }
    if (filled == total) return buffer;
    const std::string what = "answer ended after " + std::to_string(filled) + " of " + std::to_string(total) + " bytes";
    const Poco::Exception* cause = session.networkException();
    if (cause != nullptr) throw Poco::IOException(what, cause->displayText());
    throw Poco::IOException(what);
}

} // namespace

ScheduleServerAccessRequest::ScheduleServerAccessRequest(ScheduleServerAccessRequestCallback* callback)
    : callback_(callback), budget_(kExchangeDeadline), deadline_(0), socket_(-1), aborted_(false), expired_(false) {}

ScheduleServerAccessRequest::~ScheduleServerAccessRequest() {}

void ScheduleServerAccessRequest::Abort() {
    ScopedLock lock(abortMutex_);
    aborted_ = true;
    // Shut down at the descriptor, not through the session: the worker
    // thread owns the session (and its TLS state) and is blocked in it.
    if (socket_ >= 0) shutdown(socket_, SHUT_RDWR);
}

// Called by the deadline watch: shuts the socket down as Abort does, and
// notes why, so that the failure names the deadline.
void ScheduleServerAccessRequest::Expire() {
    ScopedLock lock(abortMutex_);
    expired_ = true;
    if (socket_ >= 0) shutdown(socket_, SHUT_RDWR);
}

void ScheduleServerAccessRequest::ThrowIfAborted() {
    ScopedLock lock(abortMutex_);
    if (aborted_) throw Poco::IOException("exchange aborted, the daemon is stopping");
}

// Makes `fd` the socket Abort and the deadline shut down (-1: none). Throws
// when the exchange was aborted or its time is up.
void ScheduleServerAccessRequest::Publish(int fd) {
    ScopedLock lock(abortMutex_);
    socket_ = fd;
    if (fd >= 0 && aborted_) throw Poco::IOException("exchange aborted, the daemon is stopping");
    if (fd >= 0 && expired_) throw Poco::TimeoutException("no time left to connect");
}

int ScheduleServerAccessRequest::StatusOf(const Caught& caught) {
    switch (caught.GetKind()) {
    case Caught::kNothing:
        return kStatusAnswered;
    case Caught::kLibrary:
        return kStatusLibrary;
    default:
        return kStatusOther;
    }
}

// The display text of a failed exchange: what the library said, unless the
// exchange was cut short by Abort or by its deadline, which then say so. A
// wait whose own time-out ran out with the deadline counts as the deadline.
std::string ScheduleServerAccessRequest::FailureText(const std::string& displayText) {
    const bool late = deadline_ != 0 && Poco::Clock().raw() >= deadline_;
    ScopedLock lock(abortMutex_);
    if (aborted_) return Poco::IOException("exchange aborted, the daemon is stopping").displayText();
    if (expired_ || late) {
        return Poco::TimeoutException("schedule server exchange exceeded " + BudgetText(budget_)).displayText();
    }
    return displayText;
}

void ScheduleServerAccessRequest::SetParameters(const std::string& scheduleKbn) {
    SystemSettingXmlManager settings;
    settings.Load();
    SetParameters(scheduleKbn, settings.GetOutputControlPlantId(), settings.GetOutputScheduleInformationServerUrl());
}

void ScheduleServerAccessRequest::SetParameters(const std::string& scheduleKbn, const std::string& powerPlantId,
                                                const std::string& url) {
    scheduleKbn_ = scheduleKbn;
    powerPlantId_ = powerPlantId;
    url_ = url;
}

std::string ScheduleServerAccessRequest::GetMacAddress() {
    const std::string path = FileUtil::UnderRoot(kMacAddressFile);
    std::ifstream file(path);
    if (!file.is_open()) {
        LoggerLog::Error(kTag, "failed to open " + path);
        return std::string();
    }
    std::string word;
    file >> word;
    std::string mac;
    for (const char ch : word) {
        if (ch == ':' || ch == '-') continue;
        mac += static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    }
    return mac;
}

std::string ScheduleServerAccessRequest::BuildBody(const std::string& macAddress) const {
    return "power_plant_id=" + FormValue(powerPlantId_) + "&" + "mac_address=" + FormValue(macAddress) + "&" +
           "schedule_kbn=" + FormValue(scheduleKbn_);
}

void ScheduleServerAccessRequest::Execute() {
    LoggerLog::Debug(kTag, "Execute");
    const std::string body = BuildBody(GetMacAddress());
    std::string contentType;
    const Caught caught = GuardedCall([&] { Exchange(body, contentType); });
    if (!caught) return;
    const int status = StatusOf(caught);
    const std::string message = status == kStatusLibrary
                                    ? "schedule server access failed. EXCEPTION[" + FailureText(caught.GetText()) +
                                          "] request_body[" + body + "]"
                                    : "schedule server access failed. exception request_body[" + body + "]";
    LoggerLog::Error(kTag, message);
    if (callback_ != nullptr) callback_->OnResult(status, 0, contentType, nullptr, 0, message);
}

// Sends the form and reads the answer into a buffer of its announced
// length; only a complete answer is reported. An answer without a length
// cannot be sized and fails, as does one that announces more than the
// device takes in. The whole exchange must end within the budget: at its
// deadline the socket is shut down, whatever the exchange is waiting for
// (connect, TLS handshake, send or receive). The lookup of the server's
// name is the one step it cannot reach: the C library's resolver has no
// socket to shut down and keeps its own time-outs.
void ScheduleServerAccessRequest::Exchange(const std::string& body, std::string& contentType) {
    const Poco::URI uri = ServerUri(url_);
    const Poco::Clock deadline = Poco::Clock() + budget_.totalMicroseconds();
    deadline_ = deadline.raw();
    const std::function<void(int)> publish = [this](int fd) { Publish(fd); };
    std::unique_ptr<Poco::Net::HTTPClientSession> opened = OpenSession(uri, deadline, publish);
    Poco::Net::HTTPClientSession& session = *opened;
    const SocketTrack untrack(publish);
    const DeadlineWatch watch(deadline, [this] { Expire(); });
    ThrowIfAborted();
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, uri.getPath(), Poco::Net::HTTPMessage::HTTP_1_1);
    session.setTimeout(kSessionTimeout);
    request.setKeepAlive(false);
    request.setContentType("application/x-www-form-urlencoded");
    request.setContentLength64(static_cast<Poco::Int64>(body.size()));
    session.sendRequest(request) << body;

    Poco::Net::HTTPResponse response;
    std::istream& in = session.receiveResponse(response);
    const int status = static_cast<int>(response.getStatus());
    contentType = response.getContentType();
    const bool hasRetryAfter = response.has("Retry-After");
    const std::int64_t retryAfter =
        RetryAfter::ForAnswer(status, hasRetryAfter, hasRetryAfter ? response.get("Retry-After") : std::string(),
                              SystemClock::NowMicroseconds());
    const Poco::Int64 length = response.getContentLength64();
    if (length < 0) throw UnknownLength();
    if (length > kMaxAnswerBytes) {
        throw Poco::RangeException("answer announces " + std::to_string(length) + " bytes, more than the " +
                                   std::to_string(kMaxAnswerBytes) + " taken");
    }
    const std::vector<char> buffer = ReadBody(in, session, length);
    std::cout << "status_code [[" << status << std::endl;
    std::cout << "content_type [[" << contentType << std::endl;
    std::cout << "content_length [[" << length << std::endl;
    if (callback_ != nullptr && retryAfter >= 0) callback_->OnRetryAfter(retryAfter);
    if (callback_ != nullptr)
        callback_->OnResult(kStatusAnswered, status, contentType, buffer.data(), length, std::string());
}

} // namespace brvo
