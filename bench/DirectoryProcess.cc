#include "DirectoryProcess.h"

#include "FileLoop.h"
#include "LoadClient.h"
#include "Requests.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

namespace kel::bench {
namespace {

constexpr double startSeconds = 60;
constexpr double stopSeconds = 10;
constexpr auto glance = std::chrono::milliseconds(1);

void WriteSettings(const std::string& folder, uint16_t port, Syncing syncing, const std::string& bindAddress) {
    std::filesystem::create_directories(folder);
    std::ofstream file(folder + "/com.tessaly.yar.config.plist");
    file << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
            "<plist version=\"1.0\">\n<dict>\n"
            "\t<key>kel.bindAddress</key>\n\t<string>"
         << bindAddress
         << "</string>\n"
            "\t<key>kel.multicastGroup</key>\n\t<string>127.0.0.1</string>\n"  // what it announces stays here
            "\t<key>kel.directoryPort</key>\n\t<integer>"
         << port << "</integer>\n\t<key>kel.syncFiles</key>\n\t<integer>" << (syncing == Syncing::on ? 1 : 0)
         << "</integer>\n</dict>\n</plist>\n";
    if (!file.flush()) throw std::runtime_error("cannot write the settings in " + folder);
}

std::pair<Descriptor, Descriptor> Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) FailWithErrno("pipe");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

[[noreturn]] void Become(const std::vector<std::string>& arguments, const ChildProcess::Environment& environment,
                         int input, int output) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(output, STDOUT_FILENO);
    if (input >= 0) ::dup2(input, STDIN_FILENO);
    for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    ::execv(pointers[0], pointers.data());
    ::_exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, Output output, const Environment& environment)
    : program_(arguments.at(0)), pid_(-1) {
    Descriptor childsInput, childsOutput;
    if (output == Output::toReadLine) {
        std::tie(output_, childsOutput) = Pipe();
        std::tie(childsInput, input_) = Pipe();
    }
    pid_.number = ::fork();
    if (pid_.number < 0) FailWithErrno("fork");
    if (pid_.number == 0)
        Become(arguments, environment, childsInput.get(), childsOutput.get() < 0 ? STDERR_FILENO : childsOutput.get());
}

ChildProcess::~ChildProcess() {
    if (pid_.number < 0) return;
    ::kill(pid_.number, SIGTERM);
    if (WaitFor(stopSeconds)) return;
    ::kill(pid_.number, SIGKILL);
    ::waitpid(pid_.number, nullptr, 0);
}

std::string ChildProcess::ReadLine() {
    const auto start = Clock::now();
    for (;;) {
        if (const size_t end = unread_.find('\n'); end != std::string::npos) {
            std::string line = unread_.substr(0, end);
            unread_.erase(0, end + 1);
            return line;
        }
        pollfd ready{output_.get(), POLLIN, 0};
        const int count = ::poll(&ready, 1, 1000);
        ThrowIfInterrupted();
        if (SecondsSince(start) > startSeconds) throw std::runtime_error(program_ + " says nothing");
        if (count <= 0) continue;
        char piece[4096];
        const ssize_t size = ::read(output_.get(), piece, sizeof piece);
        if (size <= 0) throw std::runtime_error(program_ + " has ended by itself");
        unread_.append(piece, static_cast<size_t>(size));
    }
}

void ChildProcess::WriteLine(const std::string& line) {
    const std::string text = line + '\n';
    if (::write(input_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) FailWithErrno(program_);
}

void ChildProcess::Kill() {
    ::kill(pid_.number, SIGKILL);
    ::waitpid(std::exchange(pid_.number, -1), nullptr, 0);
}

void ChildProcess::ThrowIfEnded() {
    if (!WaitFor(0)) return;
    throw std::runtime_error(program_ + " has ended by itself, or cannot be run");
}

bool ChildProcess::WaitFor(double seconds) {
    const auto start = Clock::now();
    while (::waitpid(pid_.number, nullptr, WNOHANG) == 0) {
        if (SecondsSince(start) >= seconds) return false;
        std::this_thread::sleep_for(glance);
    }
    pid_.number = -1;
    return true;
}

double ChildProcess::CpuSeconds() const {
    clockid_t clock{};
    timespec used{};
    if (::clock_getcpuclockid(pid_.number, &clock) != 0 || ::clock_gettime(clock, &used) != 0)
        throw std::runtime_error("the processor time cannot be read of " + program_);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

ChildProcess StartSelf(std::vector<std::string> arguments, const ChildProcess::Environment& environment) {
    arguments.insert(arguments.begin(), std::filesystem::read_symlink("/proc/self/exe"));
    return ChildProcess(arguments, ChildProcess::Output::toReadLine, environment);
}

uint16_t FreePort() {
    const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        FailWithErrno("no free port");
    return ntohs(address.sin_port);
}

DirectoryProcess::DirectoryProcess(std::string program, std::string root, Syncing syncing,
                                   const std::string& bindAddress)
    : program_(std::move(program)), root_(std::move(root)), port_(FreePort()) {
    WriteSettings(root_ + "/config", port_, syncing, bindAddress);
    if (!std::filesystem::exists(RegistrationFile(root_))) MakeFolders(root_);
}

double DirectoryProcess::Start(const std::string& name) {
    const std::string request = SatelliteIdRequest(name);
    const auto start = Clock::now();
    process_.emplace_back(std::vector{program_}, ChildProcess::Output::toErrors, environment());
    while (!Ask(port_, request)) {
        process_.back().ThrowIfEnded();
        ThrowIfInterrupted();
        if (SecondsSince(start) > startSeconds) throw std::runtime_error("the directory does not answer");
        std::this_thread::sleep_for(glance);
    }
    return SecondsSince(start);
}

uint64_t DirectoryProcess::Status(const std::string& field) const {
    std::ifstream status("/proc/" + std::to_string(process_.back().pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field, 0) == 0) return std::stoull(line.substr(field.size()));
    }
    throw std::runtime_error("the directory's status cannot be read");
}

ChildProcess::Environment DirectoryProcess::environment() const {
    return {{"YAR_ROOT", root_}, {"XDG_CONFIG_HOME", root_ + "/config"}};
}

}  // namespace kel::bench
