#include "RedisProcess.h"

#include <sys/socket.h>

#include <cstdlib>
#include <sstream>
#include <thread>
#include <vector>

namespace kel::bench {
namespace {

constexpr double startSeconds = 10;
constexpr auto glance = std::chrono::milliseconds(10);

std::string FindServer() {
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::string program = folder + "/redis-server";
        if (::access(program.c_str(), X_OK) == 0) return program;
    }
    throw std::runtime_error("there is no redis-server in $PATH");
}

std::vector<std::string> ServerCommand(const std::string& folder, uint16_t port) {
    return {FindServer(), "--port",    std::to_string(port), "--bind", "127.0.0.1",
            "--save",     "",          "--appendonly",       "no",     "--dir",
            folder,       "--logfile", folder + "/redis.log"};
}

std::string Command(const std::vector<std::string>& words) {
    std::string bytes = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string& word : words) bytes += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    return bytes;
}

std::string TextAnswer(size_t size) { return "$" + std::to_string(size) + "\r\n" + std::string(size, 'x') + "\r\n"; }

void Expect(const Descriptor& connection, const std::string& command, const std::string& expected) {
    std::string answer(expected.size(), '\0');
    if (::send(connection.get(), command.data(), command.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(command.size()))
        FailWithErrno("send");
    if (::recv(connection.get(), answer.data(), answer.size(), MSG_WAITALL) != static_cast<ssize_t>(answer.size()) ||
        answer != expected)
        throw std::runtime_error("redis-server gives another answer than expected");
}

}  // namespace

RedisProcess::RedisProcess(const std::string& folder)
    : port_(FreePort()), process_(ServerCommand(folder, port_), ChildProcess::Output::toErrors) {
    const auto start = Clock::now();
    while (ConnectToLoopback(port_).get() < 0) {
        process_.ThrowIfEnded();
        ThrowIfInterrupted();
        if (SecondsSince(start) > startSeconds) throw std::runtime_error("redis-server does not listen");
        std::this_thread::sleep_for(glance);
    }
}

Exchange RedisProcess::LearnGet(const std::string& key, size_t answerBytes) const {
    size_t size = 1;
    while (TextAnswer(size).size() < answerBytes) ++size;
    const std::string get = Command({"GET", key}), answer = TextAnswer(size);
    const Descriptor connection = ConnectToLoopback(port_);
    Expect(connection, Command({"SET", key, std::string(size, 'x')}), "+OK\r\n");
    Expect(connection, get, answer);
    return {get, answer, answer.size()};
}

}  // namespace kel::bench
