#include "directory/SelfCheck.h"

#include "foundation/CheckedSettings.h"
#include "foundation/FileTools.h"
#include "platform/ProcessPaths.h"
#include "registry/FilesCheck.h"
#include "rpc/wire/Codec.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds answerTimeout{3};
constexpr size_t largestAnswer = 64 * 1024;

class TcpSocket {
public:
    TcpSocket() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {}
    ~TcpSocket() {
        if (fd_ >= 0) close(fd_);
    }
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;

    // As a listening port is opened; an error number, or 0.
    int Bind(const sockaddr_in& at) const {
        const int on = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        return bind(fd_, reinterpret_cast<const sockaddr*>(&at), sizeof at) == 0 ? 0 : errno;
    }

    bool Connect(const sockaddr_in& to) const {
        fcntl(fd_, F_SETFL, O_NONBLOCK);
        return connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0 || errno == EINPROGRESS;
    }

    bool WaitFor(short event, Clock::time_point deadline) const {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd one{fd_, event, 0};
        return left.count() > 0 && poll(&one, 1, static_cast<int>(left.count())) == 1;
    }

    ssize_t Send(const std::string& bytes) const { return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    ssize_t Receive(char* buffer, size_t size) const { return recv(fd_, buffer, size, 0); }

private:
    const int fd_;
};

sockaddr_in EndpointAt(const CStdStr& address, uint16_t port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &at.sin_addr);
    return at;
}

// Whether who listens there publishes what a directory publishes.
bool IsDirectoryAt(const sockaddr_in& at) {
    const Clock::time_point deadline = Clock::now() + answerTimeout;
    const TcpSocket socket;
    std::string question;
    const ScopedVariant nothing;
    if (!kel::wire::EncodeRequest(question, 1, "kel.Describe", "", nothing)) return false;
    if (!socket.Connect(at) || !socket.WaitFor(POLLOUT, deadline) || socket.Send(question) < 0) return false;
    std::string answer;
    char part[4096];
    while (answer.size() < largestAnswer && socket.WaitFor(POLLIN, deadline)) {
        const ssize_t got = socket.Receive(part, sizeof part);
        if (got <= 0) return false;
        answer.append(part, static_cast<size_t>(got));
        if (answer.find("AddServiceAvailabilityListener") != std::string::npos) return true;
    }
    return false;
}

}  // namespace

SelfCheck::SelfCheck() {
    CheckSettings();
    CheckData();
    CheckLogs();
    const CStdStr address = kel::settings::BindAddress();
    const uint16_t port = kel::settings::DirectoryPort();
    CheckPort(address, port);
    if (address != "0.0.0.0" && address.compare(0, 4, "127.") != 0) CheckPort("127.0.0.1", port);
}

void SelfCheck::Add(const CStdStr& path, const CStdStr& fault) {
    if (!fault.empty()) faults_.push_back(path + ": " + fault);
}

void SelfCheck::CheckSettings() {
    notes_.push_back("settings: " + kel::settings::Files());
    for (const kel::settings::Finding& finding : kel::settings::Check()) faults_.push_back(finding.Text());
}

void SelfCheck::CheckData() {
    const CStdStr folder = kel::platform::RootPrefix() + "/Library/Tessaly";
    notes_.push_back("data: " + folder);
    const CStdStr fault = kel::registry::SharedFolderFault(folder);
    Add(folder, fault);
    if (!fault.empty()) return;
    for (const CStdStr& line : kel::registry::CheckFiles(folder)) faults_.push_back(line);
}

void SelfCheck::CheckLogs() {
    const CStdStr folder = CFileTools::GetLogsDirectory();
    notes_.push_back("logs: " + folder);
    const CStdStr fault = kel::registry::LogFault(folder);
    if (!fault.empty()) faults_.push_back(fault);
}

void SelfCheck::CheckPort(const CStdStr& address, uint16_t port) {
    const CStdStr name = address + ":" + std::to_string(port);
    const int error = TcpSocket().Bind(EndpointAt(address, port));
    if (error == 0) notes_.push_back("port: " + name + " is free");
    else if (error != EADDRINUSE) Add(name, std::strerror(error));
    else if (IsDirectoryAt(EndpointAt(address == "0.0.0.0" ? "127.0.0.1" : address, port)))
        notes_.push_back("port: a directory answers at " + name + " already");
    else Add(name, "another program holds the port and is no directory; as root, ss -ltnp names it");
}
