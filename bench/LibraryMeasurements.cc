// What libkel adds to a call on the caller's side, and what a satellite and a directory take at rest.
#include "Measurements.h"

#include "EchoServer.h"
#include "LibraryProcess.h"
#include "Requests.h"

#include <sys/socket.h>

#include <thread>

namespace kel::bench {
namespace {

constexpr unsigned mostThreads = 64;
constexpr unsigned threadCounts[] = {1, 4, 16, mostThreads};
constexpr double singleGoal = 0.9;    // of one thread, beside an echo with blocking sockets
constexpr double manyGoal = 200'000;  // calls a second of the most threads
constexpr double oneWayGoal = 1'000'000;
constexpr double memoryGoal = 8;     // MiB
constexpr unsigned usedWidth = 256;  // connections of a directory that is at rest again
constexpr double settlingSeconds = 1;
constexpr double ownCheckSeconds = 10;  // between a satellite's own questions whether it is still known
constexpr double directoryCheckSeconds = 5;
constexpr double wakeUpsWanted = 2;  // a second: a few for each check

// Calls one after the other on one blocking socket; the calls answered a second.
double AskInTurn(const Descriptor& socket, const Exchange& exchange, double seconds) {
    std::string answer(exchange.answerBytes, '\0');
    const auto request = exchange.request.data();
    const auto size = static_cast<ssize_t>(exchange.request.size());
    const auto start = Clock::now();
    uint64_t calls = 0;
    for (; SecondsSince(start) < seconds; ++calls) {
        if (::send(socket.get(), request, exchange.request.size(), MSG_NOSIGNAL) != size) FailWithErrno("send");
        if (::recv(socket.get(), answer.data(), answer.size(), MSG_WAITALL) != static_cast<ssize_t>(answer.size()) ||
            answer != exchange.answerStart)
            throw std::runtime_error("the echo server gives another answer");
    }
    return static_cast<double>(calls) / SecondsSince(start);
}

std::string Threads(unsigned count) { return std::to_string(count) + (count == 1 ? " thread" : " threads"); }

void Sleep(double seconds) {
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    while (Clock::now() < end) {
        ThrowIfInterrupted();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

double WakeUpsASecond(const LibraryCallee& satellite, double seconds) {
    const uint64_t before = satellite.WakeUps();
    const auto start = Clock::now();
    Sleep(seconds);
    return static_cast<double>(satellite.WakeUps() - before) / SecondsSince(start);
}

}  // namespace

std::vector<Row> Measurements::LibraryCalls() {
    DirectoryProcess directory(program_, Folder("library"));
    directory.Start();
    LibraryCallee callee(directory);
    LibraryCaller caller(directory);
    std::vector<Row> rows = RequestRows(callee, caller);
    rows.push_back(OneWayRow(callee, caller));
    return rows;
}

std::vector<Row> Measurements::RequestRows(const LibraryCallee& callee, LibraryCaller& caller) {
    Announce("Request from 1, 4, 16 and 64 threads");
    const Exchange exchange = Learn(callee.port(), NumberRequest(nextMethod, callerName, firstNumber));
    const Exchange echo = EchoOf(exchange);
    const EchoProcess blocking = StartEcho("blocking", exchange), epoll = StartEcho("1", exchange);
    const Descriptor toBlocking = ConnectToLoopback(blocking.port);
    std::vector<Row> rows;
    for (const unsigned threads : threadCounts) {
        LoadClient toEpoll(epoll.port, 1, threads);
        CpuMeter ofEcho([&] { return (threads == 1 ? blocking : epoll).process.CpuSeconds(); });
        CpuMeter ofCallee([&] { return callee.CpuSeconds(); });
        const double seconds = effort_.secondsASide;
        const auto callEcho = [&] {
            return threads == 1 ? AskInTurn(toBlocking, echo, seconds) : toEpoll.RunFor({&echo, 1}, seconds);
        };
        const auto rates =
            InTurn(effort_.callRounds,
                   {[&](unsigned) { return ofEcho.Run(callEcho); },
                    [&](unsigned) { return ofCallee.Run([&] { return caller.Request(threads, seconds); }); }});
        rows.push_back(
            RowOfRates("Request from " + Threads(threads), {rates[1], rates[0]}, singleGoal, ofCallee, ofEcho));
        if (threads == 1) continue;
        const bool hasGoal = threads == mostThreads;
        rows.back().goal = hasGoal ? ">= " + Rate(manyGoal) : "";
        rows.back().reached = hasGoal && Median(rates[1]) >= manyGoal;
    }
    return rows;
}

Row Measurements::OneWayRow(LibraryCallee& callee, LibraryCaller& caller) {
    Announce("one-way calls");
    const unsigned count = effort_.oneWayCalls;
    const double cpuBefore = callee.CpuSeconds();
    std::vector<double> rates;
    for (unsigned round = 0; round < effort_.fileRounds; ++round) {
        callee.ExpectCounts(count);
        const auto start = caller.SendCounts(count);
        const std::chrono::duration<double> taken = callee.AwaitCounts() - start;
        rates.push_back(count / taken.count());
    }
    const double rate = Median(rates);
    const double cpuACall = (callee.CpuSeconds() - cpuBefore) / (static_cast<double>(rates.size()) * count);
    return {"One-way calls, in order", Rate(rate), "", "", ">= " + Rate(oneWayGoal), rate >= oneWayGoal,
            Microseconds(cpuACall)};
}

std::vector<Row> Measurements::Rest() {
    Announce("a directory and a satellite at rest");
    DirectoryProcess directory(program_, Folder("rest"));
    directory.Start();
    Sleep(settlingSeconds);
    const auto memory = [&](const std::string& what) {
        const auto bytes = static_cast<double>(directory.ResidentBytes());
        return Row{what,
                   Mebibytes(bytes),
                   "",
                   "",
                   "<= " + Mebibytes(memoryGoal * 1024 * 1024),
                   bytes <= memoryGoal * 1024 * 1024};
    };
    std::vector<Row> rows{memory("Directory at rest: resident memory")};
    {
        const Exchange exchange = Learn(directory.port(), SatelliteIdRequest("MainRegister"));
        LoadClient(directory.port(), usedWidth).RunFor({&exchange, 1}, 1);
    }
    Sleep(settlingSeconds);
    rows.push_back(memory("  the same, after calls over 256 connections"));
    for (Row& row : RestOfSatellite(directory)) rows.push_back(std::move(row));
    return rows;
}

// The satellite's first question whether it is still known comes after the first of the three times.
std::vector<Row> Measurements::RestOfSatellite(const DirectoryProcess& directory) {
    const LibraryCallee satellite(directory);
    const auto haveChecksIn = [&](int seconds) {
        if (!Ask(directory.port(), BeRightBackRequest(calleeName, seconds)))
            throw std::runtime_error("the directory's checks cannot be put off");
    };
    haveChecksIn(3600);
    Sleep(settlingSeconds);
    const double untroubled = WakeUpsASecond(satellite, effort_.restSeconds);
    const double withOwn = WakeUpsASecond(satellite, ownCheckSeconds);
    haveChecksIn(0);
    const double withBoth = WakeUpsASecond(satellite, ownCheckSeconds);
    const auto row = [](const std::string& what, const std::string& wakeUps) {
        return Row{what, wakeUps, "", "", "", false};
    };
    std::vector<Row> rows{
        row("Satellite at rest: wake-ups between checks", Text(untroubled, 1) + " /s"),
        row("  for a check of its own, every 10 seconds", Text(withOwn * ownCheckSeconds, 0)),
        row("  for one by the directory, every 5 seconds", Text((withBoth - withOwn) * directoryCheckSeconds, 0)),
        row("  with both kinds of checks", Text(withBoth, 1) + " /s")};
    rows.front().goal = "0";
    rows.front().reached = untroubled == 0;
    rows.back().goal = "wanted <= " + Text(wakeUpsWanted, 0) + " /s";
    rows.back().reached = withBoth <= wakeUpsWanted;
    return rows;
}

}  // namespace kel::bench
