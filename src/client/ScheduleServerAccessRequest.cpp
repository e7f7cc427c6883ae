#include "client/ScheduleServerAccessRequest.h"

#include "client/ScheduleServerAccessRequestCallback.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/LoggerLog.h"

#include "util/FileUtil.h"

#include <Poco/Crypto/X509Certificate.h>
#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <Poco/Timespan.h>
#include <Poco/URI.h>

#include <algorithm>
#include <cctype>
#include <sys/socket.h>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <vector>

namespace brvo {

namespace {

const std::string kTag = "ScheduleServerAccessRequest";
const std::string kMacAddressFile = "/sys/class/net/eth0/address";
const long kSessionTimeoutSeconds = 20 * 60;
const std::size_t kChunkSize = 1024;
// Largest answer the device takes in. A schedule of a whole year is some
// 18 KB; an announced length beyond this is refused instead of reserving
// memory the device does not have.
const Poco::Int64 kMaxAnswerBytes = 64LL * 1024 * 1024;

// The TLS client context of an https server address: the peer's
// certificate must chain to the system's CA store or to a certificate in
// the certificates directory, and must name the host.
Poco::Net::Context::Ptr TlsContext() {
    Poco::Net::Context::Ptr context = new Poco::Net::Context(
        Poco::Net::Context::TLS_CLIENT_USE, "", "", "", Poco::Net::Context::VERIFY_STRICT, 9, true);
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

// A plain HTTP session whose socket is made here and handed to `publish`
// before it connects, so that Abort can shut down a connect that hangs.
class AbortableSession : public Poco::Net::HTTPClientSession {
public:
    AbortableSession(const std::string& host, Poco::UInt16 port, std::function<void(int)> publish)
        : HTTPClientSession(host, port), publish_(std::move(publish)) {}

protected:
    void connect(const Poco::Net::SocketAddress& address) override {
        Poco::Net::StreamSocket socket(address.family());
        publish_(static_cast<int>(socket.impl()->sockfd()));
        attachSocket(socket);
        HTTPSession::connect(address);
    }

private:
    std::function<void(int)> publish_;
};

// The session for `uri`: TLS for https, plain HTTP otherwise; a plain
// session's socket goes to `publish` before it connects.
std::unique_ptr<Poco::Net::HTTPClientSession> OpenSession(const Poco::URI& uri,
                                                         const std::function<void(int)>& publish) {
    if (uri.getScheme() == "https") {
        return std::unique_ptr<Poco::Net::HTTPClientSession>(
            new Poco::Net::HTTPSClientSession(uri.getHost(), uri.getPort(), TlsContext()));
    }
    return std::unique_ptr<Poco::Net::HTTPClientSession>(
        new AbortableSession(uri.getHost(), uri.getPort(), publish));
}

// An answer whose length is unknown or beyond reason; reported as an
// exchange that failed with an exception that is not the library's.
class UnusableLength : public std::exception {};

// Withdraws the socket Abort may shut down before the session that owns it
// is destroyed.
class SocketTrack {
public:
    explicit SocketTrack(std::function<void(int)> publish) : publish_(std::move(publish)) {}
    ~SocketTrack() { publish_(-1); }

private:
    std::function<void(int)> publish_;
};

} // namespace

ScheduleServerAccessRequest::ScheduleServerAccessRequest(ScheduleServerAccessRequestCallback* callback)
    : callback_(callback), socket_(-1), aborted_(false) {}

ScheduleServerAccessRequest::~ScheduleServerAccessRequest() {}

void ScheduleServerAccessRequest::Abort() {
    Poco::FastMutex::ScopedLock lock(abortMutex_);
    aborted_ = true;
    // Shut down at the descriptor, not through the session: the worker
    // thread owns the session (and its TLS state) and is blocked in it.
    if (socket_ >= 0) shutdown(socket_, SHUT_RDWR);
}

void ScheduleServerAccessRequest::ThrowIfAborted() {
    Poco::FastMutex::ScopedLock lock(abortMutex_);
    if (aborted_) throw Poco::IOException("exchange aborted, the daemon is stopping");
}

// Makes `fd` the socket Abort shuts down (-1: none). Throws when the
// exchange was aborted before.
void ScheduleServerAccessRequest::Publish(int fd) {
    Poco::FastMutex::ScopedLock lock(abortMutex_);
    socket_ = fd;
    if (fd >= 0 && aborted_) throw Poco::IOException("exchange aborted, the daemon is stopping");
}

void ScheduleServerAccessRequest::SetParameters(const std::string& scheduleKbn) {
    SystemSettingXmlManager settings;
    settings.Load();
    SetParameters(scheduleKbn, settings.GetOutputControlPlantId(),
                  settings.GetOutputScheduleInformationServerUrl());
}

void ScheduleServerAccessRequest::SetParameters(const std::string& scheduleKbn,
                                                const std::string& powerPlantId, const std::string& url) {
    scheduleKbn_ = scheduleKbn;
    powerPlantId_ = powerPlantId;
    url_ = url;
}

std::string ScheduleServerAccessRequest::GetMacAddress() {
    std::ifstream file(kMacAddressFile);
    if (!file.is_open()) {
        LoggerLog::Error(kTag, "failed to open " + kMacAddressFile);
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
    return "power_plant_id=" + powerPlantId_ + "&" + "mac_address=" + macAddress + "&" +
           "schedule_kbn=" + scheduleKbn_;
}

void ScheduleServerAccessRequest::Execute() {
    LoggerLog::Debug(kTag, "Execute");
    const std::string body = BuildBody(GetMacAddress());
    std::string contentType;
    try {
        Exchange(body, contentType);
        return;
    } catch (const Poco::Exception& e) {
        const std::string message =
            "schedule server access failed. EXCEPTION[" + e.displayText() + "] request_body[" + body + "]";
        LoggerLog::Error(kTag, message);
        if (callback_ != nullptr) callback_->OnResult(1, 0, contentType, nullptr, 0, message);
    } catch (...) {
        const std::string message = "schedule server access failed. exception request_body[" + body + "]";
        LoggerLog::Error(kTag, message);
        if (callback_ != nullptr) callback_->OnResult(2, 0, contentType, nullptr, 0, message);
    }
}

// Sends the form and reads the answer into a buffer of its announced
// length: a longer body is read to its end and the rest dropped, a shorter
// one leaves zeros. An answer without a length cannot be sized and fails,
// as does one that announces more than the device can hold.
void ScheduleServerAccessRequest::Exchange(const std::string& body, std::string& contentType) {
    const Poco::URI uri(url_);
    const std::function<void(int)> publish = [this](int fd) { Publish(fd); };
    std::unique_ptr<Poco::Net::HTTPClientSession> opened = OpenSession(uri, publish);
    Poco::Net::HTTPClientSession& session = *opened;
    const SocketTrack untrack(publish);
    ThrowIfAborted();
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, uri.getPath(),
                                   Poco::Net::HTTPMessage::HTTP_1_1);
    session.setTimeout(Poco::Timespan(kSessionTimeoutSeconds, 0));
    request.setKeepAlive(false);
    request.setContentType("application/x-www-form-urlencoded");
    request.setContentLength64(static_cast<Poco::Int64>(body.size()));
    session.sendRequest(request) << body;
    // A TLS session makes its socket inside sendRequest (connect and
    // handshake): only from here on can Abort reach it. An Abort that came
    // meanwhile is honoured here, before the wait for the answer.
    Publish(static_cast<int>(session.socket().impl()->sockfd()));

    Poco::Net::HTTPResponse response;
    std::istream& in = session.receiveResponse(response);
    const int status = static_cast<int>(response.getStatus());
    contentType = response.getContentType();
    const Poco::Int64 length = response.getContentLength64();
    if (length < 0 || length > kMaxAnswerBytes) throw UnusableLength();

    std::vector<char> buffer(static_cast<std::size_t>(length) + 1, 0);
    std::size_t filled = 0;
    char chunk[kChunkSize];
    for (;;) {
        in.read(chunk, kChunkSize);
        const std::size_t got = static_cast<std::size_t>(in.gcount());
        if (got == 0) break;
        const std::size_t room = static_cast<std::size_t>(length) - filled;
        const std::size_t take = std::min(got, room);
        std::copy(chunk, chunk + take, buffer.begin() + static_cast<std::ptrdiff_t>(filled));
        filled += take;
    }
    std::cout << "status_code [[" << status << std::endl;
    std::cout << "content_type [[" << contentType << std::endl;
    std::cout << "content_length [[" << length << std::endl;
    if (callback_ != nullptr) callback_->OnResult(0, status, contentType, buffer.data(), length, std::string());
}

} // namespace brvo
