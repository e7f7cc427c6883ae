// logger-daemon-sim: a stand-in for the data logger's logger daemon. It
// listens on the logger daemon's UNIX socket, prints every command pvocd
// sends and answers each with a chosen result word.
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const char kUsage[] = "usage: logger-daemon-sim [--socket PATH] [--result N]\n"
                      "Prints each command received and answers with result word N (default 0).\n";

volatile std::sig_atomic_t stopRequested = 0;

void OnSignal(int) {
    stopRequested = 1;
}

} // namespace

int main(int argc, char** argv) {
    std::string path = "/mnt/system/brvlogger/brevanta.logger";
    std::int32_t result = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--socket" && i + 1 < argc) {
            path = argv[++i];
        } else if (arg == "--result" && i + 1 < argc) {
            result = std::atoi(argv[++i]);
        } else if (arg == "--help") {
            std::cout << kUsage;
            return 0;
        } else {
            std::cerr << kUsage;
            return 2;
        }
    }
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        std::cerr << "logger-daemon-sim: socket path too long\n";
        return 2;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    const std::string directory = path.substr(0, path.rfind('/'));
    if (!directory.empty()) {
        const std::string mkdir = "mkdir -p '" + directory + "'";
        if (std::system(mkdir.c_str()) != 0) std::cerr << "logger-daemon-sim: cannot create " << directory << "\n";
    }
    unlink(path.c_str());
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 8) != 0) {
        std::cerr << "logger-daemon-sim: cannot listen on " << path << ": " << std::strerror(errno) << "\n";
        return 1;
    }
    std::signal(SIGTERM, OnSignal);
    std::signal(SIGINT, OnSignal);
    std::signal(SIGPIPE, SIG_IGN);
    std::cout << "logger-daemon-sim listening on " << path << ", answering result " << result << std::endl;
    while (!stopRequested) {
        pollfd wait = {listener, POLLIN, 0};
        if (poll(&wait, 1, 100) <= 0) continue;
        const int client = accept(listener, nullptr, nullptr);
        if (client < 0) continue;
        unsigned char command[8] = {0};
        const ssize_t got = read(client, command, sizeof command);
        std::uint32_t length = 0;
        std::memcpy(&length, command, 4);
        std::cout << "command received: " << got << " bytes, length " << length << ", command "
                  << static_cast<int>(command[4]) << std::endl;
        unsigned char reply[12] = {0};
        std::memcpy(reply + 8, &result, 4);
        ssize_t ignored = write(client, reply, sizeof reply);
        (void)ignored;
        close(client);
    }
    close(listener);
    unlink(path.c_str());
    return 0;
}
