#include "Measurements.h"

#include "FileLoop.h"
#include "Requests.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace kel::bench {
namespace {

constexpr unsigned many = 100'000;  // satellites of the full directory
constexpr unsigned few = 10;
constexpr unsigned lookUps = 1'000;  // different requests that the look-ups rotate over
constexpr unsigned usualWidth = 8;   // connections, where only one width is measured

struct Comparison {
    std::vector<double> measured;
    std::vector<double> baseline;

    std::vector<double> Ratios() const {
        std::vector<double> ratios;
        std::transform(measured.begin(), measured.end(), baseline.begin(), std::back_inserter(ratios),
                       [](double one, double other) { return one / other; });
        return ratios;
    }
};

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string Text(double number, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, number);
    return text;
}

// "12,345 /s"
std::string Rate(double perSecond) {
    std::string text = Text(perSecond, 0);
    for (size_t place = text.size(); place > 3;) text.insert(place -= 3, 1, ',');
    return text + " /s";
}

std::string Seconds(double seconds) { return Text(seconds, 3) + " s"; }

// "0.81 (0.79..0.84)"
std::string Spread(const std::vector<double>& ratios) {
    const auto [least, most] = std::minmax_element(ratios.begin(), ratios.end());
    return Text(Median(ratios), 2) + " (" + Text(*least, 2) + ".." + Text(*most, 2) + ")";
}

Row RowOfRates(std::string what, const Comparison& rates, double goal) {
    const std::vector<double> ratios = rates.Ratios();
    return {std::move(what), Rate(Median(rates.measured)), Rate(Median(rates.baseline)),
            Spread(ratios),  ">= " + Text(goal, 2),        Median(ratios) >= goal};
}

std::string Connections(unsigned count) {
    return std::to_string(count) + (count == 1 ? " connection" : " connections");
}

void Announce(const std::string& what) { std::fprintf(stderr, "%s ...\n", what.c_str()); }

// The registrations of `count` satellites from number `first` on, which look like `example`.
std::vector<Exchange> Registrations(const Exchange& example, unsigned first, unsigned count) {
    std::vector<Exchange> exchanges(count, example);
    for (unsigned i = 0; i < count; ++i) exchanges[i].request = RegisterRequest(SatelliteNumber(first + i));
    return exchanges;
}

std::string ReadText(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// The comparison stands only if the directory's files are to the byte those of the loop.
void RequireSameFiles(const std::string& root, const std::string& other, unsigned number) {
    const Satellite satellite = SatelliteNumber(number);
    const std::string text = ReadText(SatelliteFile(root, satellite));
    if (text.empty() || text != ReadText(SatelliteFile(other, satellite)) ||
        ReadText(RegistrationFile(root)) != ReadText(RegistrationFile(other)))
        throw std::runtime_error("the directory's files are not those of the file loop: " + root);
}

double RunFileLoop(const std::string& root, unsigned first, unsigned count) {
    ChildProcess loop = StartSelf({"--as-file-loop", root, std::to_string(first), std::to_string(count)});
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

std::vector<Row> Measurements::SatelliteId() {
    DirectoryProcess directory(program_, Folder("few"));
    directory.Start();
    const Satellite satellite = SatelliteNumber(0);
    Learn(directory.port(), RegisterRequest(satellite));
    const Exchange exchange = Learn(directory.port(), SatelliteIdRequest(satellite.name));
    std::vector<Row> rows;
    for (const unsigned connections : {1u, 8u, 32u}) {
        rows.push_back(SatelliteIdAt(connections, directory.port(), exchange));
    }
    return rows;
}

Row Measurements::SatelliteIdAt(unsigned connections, uint16_t port, const Exchange& exchange) {
    const std::string what = "GetSatelliteId, " + Connections(connections);
    Announce(what);
    const Exchange echo{exchange.request, exchange.request, exchange.request.size()};
    ChildProcess one = StartSelf({"--as-echo", "1"});
    ChildProcess two = StartSelf({"--as-echo", "2"});
    LoadClient toOne(static_cast<uint16_t>(std::stoul(one.ReadLine())), connections);
    LoadClient toTwo(static_cast<uint16_t>(std::stoul(two.ReadLine())), connections);
    LoadClient toDirectory(port, connections);
    const double seconds = effort_.secondsASide;
    const auto rates = InTurn(effort_.callRounds, {[&](unsigned) {
                                                       return toOne.RunFor({&echo, 1}, seconds);
                                                   },
                                                   [&](unsigned) {
                                                       return toDirectory.RunFor({&exchange, 1}, seconds);
                                                   },
                                                   [&](unsigned) {
                                                       return toTwo.RunFor({&echo, 1}, seconds);
                                                   }});
    const bool twoIsBetter = Median(rates[2]) > Median(rates[0]);
    Row row = RowOfRates(what, {rates[1], twoIsBetter ? rates[2] : rates[0]}, 0.75);
    row.baseline += twoIsBetter ? " [2]" : " [1]";
    return row;
}

std::vector<Row> Measurements::Register() {
    Announce("Register, 1 and 8 connections");
    const std::string loop = Folder("loop");
    MakeFolders(loop);
    DirectoryProcess narrow(program_, Folder("narrow")), wide(program_, Folder("wide"));
    narrow.Start();
    wide.Start();
    RunFileLoop(loop, 0, 1);
    const Exchange example = LearnRegister(narrow.port(), 0);
    LearnRegister(wide.port(), 0);
    LoadClient toNarrow(narrow.port(), 1), toWide(wide.port(), usualWidth);
    const unsigned count = effort_.registrationsASide;
    const auto first = [count](unsigned round) { return 1 + round * count; };
    const auto rates =
        InTurn(effort_.fileRounds,
               {[&](unsigned round) { return toWide.RunOnce(Registrations(example, first(round), count)); },
                [&](unsigned round) { return RunFileLoop(loop, first(round), count); },
                [&](unsigned round) { return toNarrow.RunOnce(Registrations(example, first(round), count)); }});
    RequireSameFiles(narrow.root(), loop, first(effort_.fileRounds) - 1);
    return {RowOfRates("Register, " + Connections(1), {rates[2], rates[1]}, 0.7),
            RowOfRates("Register, " + Connections(usualWidth), {rates[0], rates[1]}, 0.7)};
}

std::vector<Row> Measurements::ServiceLookUp() {
    DirectoryProcess& full = FullDirectory();
    Announce("GetServiceReg, with 100,000 satellites and with 10");
    DirectoryProcess small(program_, Folder("ten"));
    small.Start();
    for (unsigned i = 0; i < few; ++i) Learn(small.port(), RegisterRequest(SatelliteNumber(i)));
    // As many request buffers on both sides, so that the client does the same work.
    std::vector<Exchange> ofMany, ofFew;
    for (unsigned i = 0; i < lookUps; ++i) {
        const auto learn = [](DirectoryProcess& directory, unsigned number) {
            return Learn(directory.port(), AnyServiceRequest(SatelliteNumber(number).service));
        };
        ofMany.push_back(learn(full, i * (many / lookUps)));
        ofFew.push_back(learn(small, i % few));
    }
    LoadClient toFull(full.port(), usualWidth), toSmall(small.port(), usualWidth);
    const double seconds = effort_.secondsASide;
    const auto rates = InTurn(effort_.callRounds, {[&](unsigned) { return toSmall.RunFor(ofFew, seconds); },
                                                   [&](unsigned) { return toFull.RunFor(ofMany, seconds); }});
    return {RowOfRates("GetServiceReg \"any\", 100,000 satellites", {rates[1], rates[0]}, 0.9)};
}

std::vector<Row> Measurements::Memory() {
    FullDirectory();
    const double kibibytes = static_cast<double>(fullBytes_) / many / 1024;
    return {{"Resident memory a satellite, 100,000 of them", Text(kibibytes, 2) + " KiB", "", "", "<= 1.5 KiB",
             kibibytes <= 1.5}};
}

std::vector<Row> Measurements::StartUp() {
    DirectoryProcess& full = FullDirectory();
    Announce("start-up with 100,000 satellite files");
    full.Stop();
    RunFileReader(full.root(), many);
    const auto seconds = InTurn(effort_.fileRounds, {[&](unsigned) { return RunFileReader(full.root(), many); },
                                                     [&](unsigned) {
                                                         const double untilAnswer =
                                                             full.Start(SatelliteNumber(many - 1).name);
                                                         full.Stop();
                                                         return untilAnswer;
                                                     }});
    const Comparison times{seconds[1], seconds[0]};
    const std::vector<double> ratios = times.Ratios();
    return {{"Start-up with 100,000 satellite files", Seconds(Median(times.measured)), Seconds(Median(times.baseline)),
             Spread(ratios), "<= 2.00", Median(ratios) <= 2}};
}

DirectoryProcess& Measurements::FullDirectory() {
    if (full_) return *full_;
    Announce("registering 100,000 satellites");
    full_ = std::make_unique<DirectoryProcess>(program_, Folder("full"));
    full_->Start();
    const uint64_t before = full_->ResidentBytes();
    const Exchange example = LearnRegister(full_->port(), 0);
    {
        LoadClient client(full_->port(), usualWidth);
        constexpr unsigned portion = 10'000;
        for (unsigned first = 1; first < many; first += portion) {
            client.RunOnce(Registrations(example, first, std::min(portion, many - first)));
        }
    }
    fullBytes_ = full_->ResidentBytes() - before;
    return *full_;
}

}  // namespace kel::bench
