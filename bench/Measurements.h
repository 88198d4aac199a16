// What kel_bench measures, each measurement giving rows of the table.
#pragma once

#include "DirectoryProcess.h"
#include "Figures.h"
#include "LoadClient.h"
#include "SwarmProcess.h"
#include "TwoHosts.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kel::bench {

class LibraryCallee;
class LibraryCaller;
class RedisProcess;

// How much to do. Many short rounds rather than a few long ones: what else the machine does then spoils a few of them,
// and the median does not see those.
struct Effort {
    unsigned callRounds = 21;
    double secondsASide = 0.33;  // in a round of calls
    unsigned fileRounds = 7;
    unsigned registrationsASide = 1'000;  // in a round of registrations
    unsigned passes = 5;                  // of liveness checks, after the first one
    double attackSeconds = 25;            // with an attack and without; names are held for ten seconds at a time
    double fairSeconds = 2;               // a side, in a round of those that look at single calls
    unsigned oneWayCalls = 500'000;       // in a round
    double restSeconds = 7;               // less than ten, after which a satellite has something to do
};

// The machine's speed drifts, so both sides of a comparison run in turn, round after round; each round gives one ratio,
// and the median of these counts.
class Measurements {
public:
    // `program` is the directory's executable; everything is written below `folder`.
    Measurements(std::string program, std::string folder, Effort effort);

    struct Width;

    // GetSatelliteId by width: how many connections there are, and how many calls are in flight on each. Beside an echo
    // of as many bytes, and beside Redis where the machine has it.
    std::vector<Row> Calls();

    // Register of new satellites with 1 and 32 connections, beside a loop that replaces the same two files with the
    // same syncs; and with 1 and 8, neither side syncing.
    //
    // A product's processes start together, at log-in, and each registers on a connection of its own: that many at once
    // is what a directory sees then. With one connection the client and the directory take turns, and the figure holds
    // the time in which neither of them works as well.
    std::vector<Row> Register();

    // GetServiceReg ("any") with 100,000 satellites, beside a directory that has ten, in the same widths.
    std::vector<Row> ServiceLookUp();

    // Look-ups of a satellite on the directory's own machine by callers who are given the address that leads to them,
    // with 2 and with 5,000 routes: by another host, and, to tell what that takes from what the way there takes, by the
    // own one over its outer address; both beside the same calls over loopback. kel.Ping needs no address. 8
    // connections. Nothing where there are no network namespaces.
    std::vector<Row> FromAnotherHost();

    // libkel's Request from 1, 4, 16 and 64 threads of one satellite to another one, beside an echo: of one thread with
    // blocking sockets on both sides, and with as many calls in flight on one connection. And one-way calls, of which
    // none may be lost or come out of order.
    std::vector<Row> LibraryCalls();

    // What 100,000 satellites, registered over the wire with files on, add to the resident memory.
    std::vector<Row> Memory();

    // From the start of the process to an answer that needs the files of 100,000 satellites, beside a process that only
    // reads these files.
    std::vector<Row> StartUp();

    // Passes of liveness checks over 1,000 and over 10,000 living satellites, beside a loop that exchanges the same
    // bytes with the same ports.
    std::vector<Row> Liveness();

    // From the call that adds a service to the last of 1,000 listeners, beside a loop that writes them the same bytes.
    std::vector<Row> FanOut();

    // What is left of 1,000 satellites out of 10,000 two passes after they were killed.
    std::vector<Row> Deaths();

    // How long GetSatelliteId takes while 600 connections register names that point at a port which never answers,
    // beside the same without them.
    std::vector<Row> Attack();

    // How long GetSatelliteId takes beside one connection that keeps 1,024 calls in flight, beside the same beside 16
    // connections with one call each.
    std::vector<Row> Fairness();

    // What a directory's memory is at rest, and how often a satellite's threads wake up that has nothing to do.
    std::vector<Row> Rest();

private:
    static constexpr unsigned many = 100'000;  // satellites of the full directory

    using Side = std::function<double(unsigned round)>;
    static std::vector<std::vector<double>> InTurn(unsigned rounds, const std::vector<Side>& sides);

    std::string Folder(const std::string& name) const { return folder_ + "/" + name; }
    std::vector<Row> CallsAt(const Width& width, const DirectoryProcess& directory, const Exchange& exchange,
                             const RedisProcess* redis);
    std::vector<Row> RegisterWith(Syncing syncing, unsigned width, std::array<double, 2> goals);
    std::vector<Row> RequestRows(const LibraryCallee& callee, LibraryCaller& caller);
    Row OneWayRow(LibraryCallee& callee, LibraryCaller& caller);
    std::vector<Row> RestOfSatellite(const DirectoryProcess& directory);
    std::vector<Row> LivenessOf(unsigned count);
    std::vector<Row> ByEveryWay(const TwoHosts& hosts, uint16_t port, const std::string& what,
                                const std::string& request);
    DirectoryProcess& FullDirectory();

    Satellite SatelliteOf(unsigned number);
    std::vector<Satellite> SatellitesOf(unsigned first, unsigned count);

    std::string program_;
    std::string folder_;
    Effort effort_;
    std::unique_ptr<Swarm> endpoint_;         // of all satellites that SatelliteOf gives
    std::unique_ptr<DirectoryProcess> full_;  // made by the first measurement that needs it
    uint64_t fullBytes_ = 0;                  // what its satellites added to its memory
};

}  // namespace kel::bench
