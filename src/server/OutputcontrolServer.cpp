#include "server/OutputcontrolServer.h"

#include "server/Channel.h"
#include "server/OutSocketWork.h"
#include "settings/LoggerSettingManager.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"

#include <Poco/Mutex.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {

namespace {

// The server thread is never joined: it still runs while the process exits
// and static objects are destroyed. Its constants therefore have no
// destructor, and its mutex is never destroyed.
const char kTag[] = "OutputcontrolServer";
const char kDefaultSocketPath[] = "/mnt/system/pvoctrl/brevanta.octrl";
const int kDefaultTimeoutSeconds = 60;
const mode_t kSocketMode = 0660;

// The one process-wide mutex that serialises accept and the hand-over to the
// pool.
Poco::Mutex& ConnectionMutex() {
    static Poco::Mutex* mutex = new Poco::Mutex();
    return *mutex;
}

std::string SocketPath() {
    LoggerSettingManager* settings = LoggerSettingManager::GetInstance();
    return settings != nullptr ? settings->GetOutputControlSocketPath()
                               : std::string(kDefaultSocketPath);
}

int SocketTimeoutSeconds() {
    LoggerSettingManager* settings = LoggerSettingManager::GetInstance();
    return settings != nullptr ? settings->GetOutputControlSocketTimeout() : kDefaultTimeoutSeconds;
}

// The socket address of `path`, or false when the path does not fit the
// address with its terminator.
bool SocketAddress(const std::string& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

} // namespace

OutputcontrolServer::OutputcontrolServer()
    : channel_(new Channel(kWorkerCount)), listenSocket_(-1), stopping_(false) {
    channel_->StartWorkers();
    LoggerLog::Debug(kTag, "StartWorkers done");
}

OutputcontrolServer::~OutputcontrolServer() {
    delete channel_;
    const int socket = listenSocket_.exchange(-1);
    if (socket >= 0) close(socket);
}

void OutputcontrolServer::Stop() {
    stopping_ = true;
    const int socket = listenSocket_;
    if (socket >= 0) shutdown(socket, SHUT_RDWR);
}

void OutputcontrolServer::run() {
    LoggerLog::Info(kTag, "Start communication server");
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    listenSocket_ = socket;
    if (stopping_ || !BindAndListen(socket)) return;
    AcceptLoop(socket);
}

// False when listen failed; a bind failure is only logged.
bool OutputcontrolServer::BindAndListen(int socket) {
    const std::string path = SocketPath();
    const std::string directory = FileUtil::GetDirectory(path);
    if (!FileUtil::Exists(directory)) FileUtil::CreateDirectory(directory, true);
    // A path too long for the address is not cut to some other name: it
    // cannot be bound, which the bind failure line reports.
    sockaddr_un address;
    const bool fits = SocketAddress(path, address);
    if (fits) unlink(address.sun_path);
    LoggerLog::Debug(kTag, "bind start");
    const int bound =
        fits ? bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) : -1;
    if (bound != 0) LoggerLog::Fatal(kTag, "bind failed. [" + std::to_string(bound) + "]");
    // Commands can start schedule fetches and, on a plant change, wipe the
    // stored schedule: only pvocd's user and group may connect.
    if (bound == 0) chmod(address.sun_path, kSocketMode);
    errno = 0;
    const int listening = listen(socket, kBacklog);
    if (listening != 0) {
        LoggerLog::Fatal(kTag, "listen failed. [" + std::to_string(listening) + "][" +
                                   std::to_string(errno) + "]");
        return false;
    }
    return true;
}

// Waits for a connection in rounds of the configured time-out, re-read every
// round so that a changed setting takes effect; ends at the first failed
// accept.
void OutputcontrolServer::AcceptLoop(int socket) {
    while (!stopping_) {
        fd_set readSet;
        FD_ZERO(&readSet);
        if (socket < 0 || socket >= FD_SETSIZE) return;
        FD_SET(socket, &readSet);
        timeval timeout;
        timeout.tv_sec = SocketTimeoutSeconds();
        timeout.tv_usec = 0;
        const int ready = select(socket + 1, &readSet, nullptr, nullptr, &timeout);
        if (ready == -1) {
            LoggerLog::Debug(kTag, "select error continue");
            continue;
        }
        if (ready == 0 || !FD_ISSET(socket, &readSet)) continue;
        Poco::Mutex::ScopedLock lock(ConnectionMutex());
        sockaddr_un peer;
        socklen_t peerLength = sizeof peer;
        const int client = accept4(socket, reinterpret_cast<sockaddr*>(&peer), &peerLength, SOCK_CLOEXEC);
        if (client < 0) {
            if (!stopping_) LoggerLog::Error(kTag, "Failed to accept");
            return;
        }
        channel_->Enqueue(new OutSocketWork(client));
    }
}

} // namespace brvo
