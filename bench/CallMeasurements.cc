// Calls of a running directory by width: how many connections there are, and how many calls are in flight on each.
#include "Measurements.h"

#include "EchoServer.h"
#include "RedisProcess.h"
#include "Requests.h"

#include <utility>

namespace kel::bench {
namespace {

constexpr unsigned few = 10;
constexpr unsigned lookUps = 1'000;  // different requests that the look-ups rotate over
constexpr double lookUpGoal = 0.9;

}  // namespace

struct Measurements::Width {
    unsigned connections;
    unsigned inFlight;
    double goal;  // of the echo
};

namespace {

constexpr Measurements::Width widths[] = {{1, 1, 0.9},   {8, 1, 0.9},  {32, 1, 0.9},
                                          {256, 1, 0.9}, {8, 16, 0.4}, {32, 16, 0.4}};

std::string WidthText(const Measurements::Width& width) {
    return std::to_string(width.connections) + " x " + std::to_string(width.inFlight);
}

// One of those that are compared, with its callers.
class Contender {
public:
    // `cpuSeconds` tells the processor time that the server has used.
    Contender(uint16_t port, const Measurements::Width& width, std::vector<Exchange> exchanges,
              std::function<double()> cpuSeconds)
        : client_(port, width.connections, width.inFlight),
          exchanges_(std::move(exchanges)),
          meter_(std::move(cpuSeconds)) {}

    // Calls for so long; the calls answered a second.
    double Run(double seconds) {
        return meter_.Run([&] { return client_.RunFor(exchanges_, seconds); });
    }

    const CpuMeter& meter() const { return meter_; }

private:
    LoadClient client_;
    std::vector<Exchange> exchanges_;
    CpuMeter meter_;
};

// An echo server in a process of its own, with its callers.
class EchoContender {
public:
    EchoContender(unsigned threads, const Measurements::Width& width, const Exchange& exchange)
        : process_(StartEcho(std::to_string(threads), exchange)),
          contender_(process_.port, width, {EchoOf(exchange)}, [this] { return process_.process.CpuSeconds(); }) {}
    EchoContender(const EchoContender&) = delete;
    EchoContender& operator=(const EchoContender&) = delete;

    double Run(double seconds) { return contender_.Run(seconds); }
    const CpuMeter& meter() const { return contender_.meter(); }

private:
    EchoProcess process_;
    Contender contender_;
};

std::optional<RedisProcess> StartRedis(const std::string& folder) {
    try {
        return std::make_optional<RedisProcess>(folder);
    } catch (const std::exception& problem) {
        Announce(std::string("leaving out Redis: ") + problem.what());
        return std::nullopt;
    }
}

}  // namespace

std::vector<Row> Measurements::Calls() {
    DirectoryProcess directory(program_, Folder("few"));
    directory.Start();
    const Satellite satellite = SatelliteOf(0);
    Learn(directory.port(), RegisterRequest(satellite));
    const Exchange exchange = Learn(directory.port(), SatelliteIdRequest(satellite.name));
    const std::optional<RedisProcess> redis = StartRedis(directory.root());
    std::vector<Row> rows;
    for (const Width& width : widths) {
        for (Row& row : CallsAt(width, directory, exchange, redis ? &*redis : nullptr)) rows.push_back(std::move(row));
    }
    return rows;
}

std::vector<Row> Measurements::CallsAt(const Width& width, const DirectoryProcess& directory, const Exchange& exchange,
                                       const RedisProcess* redis) {
    const std::string what = "GetSatelliteId, " + WidthText(width);
    Announce(what);
    EchoContender one(1, width, exchange), two(2, width, exchange);
    Contender ours(directory.port(), width, {exchange}, [&] { return directory.CpuSeconds(); });
    std::optional<Contender> others;
    const double seconds = effort_.secondsASide;
    std::vector<Side> sides{[&](unsigned) { return one.Run(seconds); }, [&](unsigned) { return ours.Run(seconds); },
                            [&](unsigned) { return two.Run(seconds); }};
    if (redis) {
        const std::vector<Exchange> get{redis->LearnGet("satellite", exchange.answerBytes)};
        others.emplace(redis->port(), width, get, [redis] { return redis->CpuSeconds(); });
        sides.push_back([&](unsigned) { return others->Run(seconds); });
    }
    const auto rates = InTurn(effort_.callRounds, sides);
    const bool twoIsBetter = Median(rates[2]) > Median(rates[0]);
    std::vector<Row> rows{RowOfRates(what, {rates[1], rates[twoIsBetter ? 2 : 0]}, width.goal, ours.meter(),
                                     (twoIsBetter ? two : one).meter())};
    rows.back().baseline += twoIsBetter ? " [2]" : " [1]";
    if (others) {
        rows.push_back(RowOfRates(what + ", beside Redis GET", {rates[1], rates[3]}, 1, ours.meter(), others->meter()));
        rows.back().goal = "wanted > 1";
    }
    return rows;
}

std::vector<Row> Measurements::ServiceLookUp() {
    DirectoryProcess& full = FullDirectory();
    Announce("GetServiceReg, with 100,000 satellites and with 10");
    DirectoryProcess small(program_, Folder("ten"));
    small.Start();
    for (unsigned i = 0; i < few; ++i) Learn(small.port(), RegisterRequest(SatelliteOf(i)));
    // As many request buffers on both sides, so that the client does the same work.
    std::vector<Exchange> ofMany, ofFew;
    for (unsigned i = 0; i < lookUps; ++i) {
        const auto learn = [this](DirectoryProcess& directory, unsigned number) {
            return Learn(directory.port(), ServiceRequest("any", SatelliteOf(number).service));
        };
        ofMany.push_back(learn(full, i * (many / lookUps)));
        ofFew.push_back(learn(small, i % few));
    }
    std::vector<Row> rows;
    const double seconds = effort_.secondsASide;
    for (const Width& width : widths) {
        Contender toFull(full.port(), width, ofMany, [&] { return full.CpuSeconds(); });
        Contender toSmall(small.port(), width, ofFew, [&] { return small.CpuSeconds(); });
        const auto rates = InTurn(effort_.callRounds, {[&](unsigned) { return toSmall.Run(seconds); },
                                                       [&](unsigned) { return toFull.Run(seconds); }});
        rows.push_back(RowOfRates("GetServiceReg, 100,000 satellites, " + WidthText(width), {rates[1], rates[0]},
                                  lookUpGoal, toFull.meter(), toSmall.meter()));
    }
    return rows;
}

}  // namespace kel::bench
