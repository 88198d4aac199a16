#include "Measurements.h"

#include "FileLoop.h"
#include "Requests.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace kel::bench {
namespace {

constexpr unsigned manyRoutes = 5'000;
constexpr unsigned usualWidth = 8;  // connections, where only one width is measured

std::string Connections(unsigned count) {
    return std::to_string(count) + (count == 1 ? " connection" : " connections");
}

// Has the directory not ping these satellites. It pings every satellite in every pass, on a thread each, which would
// compete with what is measured: with thousands that are there only to be many, that is another measurement.
void LeaveInPeace(LoadClient& client, uint16_t port, std::span<const Satellite> satellites) {
    std::vector<Exchange> exchanges(satellites.size(), Learn(port, BeRightBackRequest(satellites.front().name)));
    for (size_t i = 0; i < satellites.size(); ++i) exchanges[i].request = BeRightBackRequest(satellites[i].name);
    client.RunOnce(exchanges);
}

std::string ReadText(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// The comparison stands only if the directory's files are to the byte those of the loop.
void RequireSameFiles(const std::string& root, const std::string& other, const Satellite& satellite) {
    const std::string text = ReadText(SatelliteFile(root, satellite));
    if (text.empty() || text != ReadText(SatelliteFile(other, satellite)) ||
        ReadText(RegistrationFile(root)) != ReadText(RegistrationFile(other)))
        throw std::runtime_error("the directory's files are not those of the file loop: " + root);
}

double RunFileLoop(const std::string& root, unsigned short port, unsigned first, unsigned count, Syncing syncing) {
    ChildProcess loop = StartSelf({"--as-file-loop", root, std::to_string(port), std::to_string(first),
                                   std::to_string(count), syncing == Syncing::on ? "1" : "0"});
    return std::stod(loop.ReadLine());
}

double RunFileReader(const std::string& root, size_t atLeast) {
    const auto start = Clock::now();
    ChildProcess reader = StartSelf({"--as-file-reader", root});
    const size_t count = std::stoul(reader.ReadLine());
    const double seconds = SecondsSince(start);
    if (count < atLeast) throw std::runtime_error("satellite files are missing below " + root);
    return seconds;
}

}  // namespace

Measurements::Measurements(std::string program, std::string folder, Effort effort)
    : program_(std::move(program)), folder_(std::move(folder)), effort_(effort) {}

// Forwards in one round and backwards in the next, so that no side always comes first.
std::vector<std::vector<double>> Measurements::InTurn(unsigned rounds, const std::vector<Side>& sides) {
    std::vector<std::vector<double>> results(sides.size());
    for (unsigned round = 0; round < rounds; ++round) {
        for (size_t i = 0; i < sides.size(); ++i) {
            const size_t side = round % 2 ? sides.size() - 1 - i : i;
            results[side].push_back(sides[side](round));
        }
    }
    return results;
}

std::vector<Row> Measurements::Register() {
    std::vector<Row> rows = RegisterWith(Syncing::on, 32, {0.9, 5});
    for (Row& row : RegisterWith(Syncing::off, usualWidth, {0.7, 0.7})) rows.push_back(std::move(row));
    return rows;
}

// Over one connection and over `width` of them.
std::vector<Row> Measurements::RegisterWith(Syncing syncing, unsigned width, std::array<double, 2> goals) {
    const std::string kind = syncing == Syncing::on ? "" : ", not synced";
    Announce("Register" + kind + ", 1 and " + Connections(width));
    const std::string loop = Folder("loop" + kind);
    MakeFolders(loop);
    DirectoryProcess narrow(program_, Folder("narrow" + kind), syncing), wide(program_, Folder("wide" + kind), syncing);
    narrow.Start();
    wide.Start();
    const Satellite satellite = SatelliteOf(0);
    RunFileLoop(loop, satellite.port, 0, 1, syncing);
    const Exchange example = LearnRegister(narrow.port(), satellite);
    LearnRegister(wide.port(), satellite);
    LoadClient toNarrow(narrow.port(), 1), toWide(wide.port(), width);
    const unsigned count = effort_.registrationsASide;
    const auto first = [count](unsigned round) { return 1 + round * count; };
    const auto registerAt = [&](LoadClient& client, uint16_t port, unsigned round) {
        const std::vector<Satellite> satellites = SatellitesOf(first(round), count);
        const double rate = client.RunOnce(Registrations(example, satellites));
        LeaveInPeace(client, port, satellites);
        return rate;
    };
    const auto runLoop = [&](unsigned round) {
        return RunFileLoop(loop, satellite.port, first(round), count, syncing);
    };
    const auto rates =
        InTurn(effort_.fileRounds, {[&](unsigned round) { return registerAt(toWide, wide.port(), round); }, runLoop,
                                    [&](unsigned round) { return registerAt(toNarrow, narrow.port(), round); }});
    RequireSameFiles(narrow.root(), loop, SatelliteOf(first(effort_.fileRounds) - 1));
    return {RowOfRates("Register" + kind + ", " + Connections(1), {rates[2], rates[1]}, goals[0]),
            RowOfRates("Register" + kind + ", " + Connections(width), {rates[0], rates[1]}, goals[1])};
}

std::vector<Row> Measurements::FromAnotherHost() {
    std::optional<TwoHosts> hosts;
    try {
        hosts.emplace();
    } catch (const std::exception& problem) {
        Announce(std::string("skipping look-ups from another host, for which root and iproute2 are needed: ") +
                 problem.what());
        return {};
    }
    Announce("look-ups from another host, with 2 and with 5,000 routes");
    DirectoryProcess directory(program_, Folder("networks"), Syncing::on, "0.0.0.0");
    {
        const TwoHosts::Stay stay(hosts->home());
        directory.Start();
    }
    const std::string own = "MainRegister";
    const uint16_t port = directory.port();
    std::vector<Row> rows = ByEveryWay(*hosts, port, "kel.Ping", PingRequest(own, 1));
    for (Row& row : rows) row.goal.clear();
    for (const unsigned routes : {2u, manyRoutes}) {
        hosts->GiveRoutes(routes);
        const std::string with = ", " + Grouped(routes) + " routes";
        for (Row& row : ByEveryWay(*hosts, port, "GetSatelliteHost" + with, SatelliteHostRequest(own)))
            rows.push_back(std::move(row));
        for (Row& row : ByEveryWay(*hosts, port, "GetServiceReg" + with, ServiceRequest("any", "Register")))
            rows.push_back(std::move(row));
    }
    return rows;
}

std::vector<Row> Measurements::ByEveryWay(const TwoHosts& hosts, uint16_t port, const std::string& what,
                                          const std::string& request) {
    struct Caller {
        Caller(const std::string& host, const Server& server, const std::string& request)
            : stay(host), exchange(Learn(server, request)), client(server, usualWidth) {}
        double Run(double seconds) { return client.RunFor({&exchange, 1}, seconds); }
        const TwoHosts::Stay stay;
        const Exchange exchange;
        LoadClient client;
    };
    Caller loopback(hosts.home(), port, request);
    Caller near(hosts.home(), {port, hosts.homeAddress()}, request);
    Caller far(hosts.away(), {port, hosts.homeAddress()}, request);
    const double seconds = effort_.secondsASide;
    const auto rates = InTurn(
        effort_.callRounds, {[&](unsigned) { return loopback.Run(seconds); },
                             [&](unsigned) { return near.Run(seconds); }, [&](unsigned) { return far.Run(seconds); }});
    return {RowOfRates("Outer address: " + what, {rates[1], rates[0]}, 0.9),
            RowOfRates("Another host: " + what, {rates[2], rates[0]}, 0.9)};
}

std::vector<Row> Measurements::Memory() {
    FullDirectory();
    const double kibibytes = static_cast<double>(fullBytes_) / many / 1024;
    return {{"Resident memory a satellite, 100,000 of them", Text(kibibytes, 2) + " KiB", "", "", "<= 1.0 KiB",
             kibibytes <= 1}};
}

std::vector<Row> Measurements::StartUp() {
    DirectoryProcess& full = FullDirectory();
    Announce("start-up with 100,000 satellite files");
    full.Stop();
    RunFileReader(full.root(), many);
    const auto seconds = InTurn(effort_.fileRounds, {[&](unsigned) { return RunFileReader(full.root(), many); },
                                                     [&](unsigned) {
                                                         const double untilAnswer =
                                                             full.Start(SatelliteOf(many - 1).name);
                                                         full.Stop();
                                                         return untilAnswer;
                                                     }});
    const Comparison times{seconds[1], seconds[0]};
    const std::vector<double> ratios = times.Ratios();
    return {{"Start-up with 100,000 satellite files", Seconds(Median(times.measured)), Seconds(Median(times.baseline)),
             Spread(ratios), "<= 2.00", Median(ratios) <= 2}};
}

// All have one endpoint, which says that it is whoever it is asked for: the directory keeps one connection for all of
// them, and does not take them for dead.
Satellite Measurements::SatelliteOf(unsigned number) {
    if (!endpoint_) endpoint_ = std::make_unique<Swarm>(0, 1);
    return SatelliteNumber(number, endpoint_->satellites().front().port);
}

std::vector<Satellite> Measurements::SatellitesOf(unsigned first, unsigned count) {
    std::vector<Satellite> satellites;
    for (unsigned i = 0; i < count; ++i) satellites.push_back(SatelliteOf(first + i));
    return satellites;
}

DirectoryProcess& Measurements::FullDirectory() {
    if (full_) return *full_;
    Announce("registering 100,000 satellites");
    full_ = std::make_unique<DirectoryProcess>(program_, Folder("full"), Syncing::off);
    full_->Start();
    const uint64_t before = full_->ResidentBytes();
    const Exchange example = LearnRegister(full_->port(), SatelliteOf(0));
    {
        LoadClient client(full_->port(), usualWidth);
        constexpr unsigned portion = 1'000;  // that a pass may come upon before they are left in peace
        for (unsigned first = 0; first < many; first += portion) {
            const std::vector<Satellite> satellites = SatellitesOf(first, portion);
            client.RunOnce(Registrations(example, std::span(satellites).subspan(first == 0 ? 1 : 0)));
            LeaveInPeace(client, full_->port(), satellites);
        }
    }
    fullBytes_ = full_->ResidentBytes() - before;
    return *full_;
}

}  // namespace kel::bench
