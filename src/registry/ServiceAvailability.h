// ServiceAvailability: which satellites want to hear of which services, in memory and in a file that survives a
// restart. KelDirectory makes the one there is and shares it with its registry, which tells it what comes and goes.
//
// Threads: every member may be called from any thread, except that LoadList belongs before the first request. The
// list's lock is not held while somebody is told, a file is written or the directory is asked.
//
// Services and satellites are compared byte by byte here: "Schedule" and "schedule" are two services to listen for.
//
// What listeners hear is in order: whoever changes a service in the registry has the turn of that service (NameTurns)
// from before the change until the listeners' queues have it, and so has whoever tells a new listener what is there.
// Without that, a listener could hear of the coming after the going, and keep what is gone for good.
#pragma once

#include "foundation/Locks.h"
#include "foundation/SaidOnce.h"
#include "foundation/StdString.h"
#include "foundation/Turns.h"
#include "registry/DataFiles.h"
#include "registry/GroupCommit.h"
#include "registry/SatelliteChannel.h"

#include <boost/multi_index/composite_key.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index/sequenced_index.hpp>
#include <boost/multi_index_container.hpp>

#include <atomic>
#include <list>
#include <vector>

// Who publishes what, as the listener list asks it.
class ServiceProviders {
public:
    virtual ~ServiceProviders() = default;
    // Appends the names of the satellites that publish the service, in the order of names. Returns 0 or an error.
    virtual int GetServices(const CStdStr& serviceName, std::list<CStdStr>& satellites) = 0;
};

class ServiceAvailability {
public:
    static constexpr int brokenFile = 11;  // of LoadList

    static constexpr size_t maxServicesOfOne = 10'000;  // that a satellite may listen for, and name in one call
    static constexpr size_t maxEntries = 200'000;       // of all satellites together

    // An empty list. Both outlive the object.
    ServiceAvailability(SatelliteChannel* sink, ServiceProviders* directory) : sink_(sink), directory_(directory) {}
    ServiceAvailability(const ServiceAvailability&) = delete;
    ServiceAvailability& operator=(const ServiceAvailability&) = delete;

    // Adds what the file lists, up to the first broken entry, and writes the file again if there was something to add
    // and it then says something else. Returns 0, also when there is no file, or brokenFile: then what was there is
    // kept beside the file, which stays as it is as long as the list is empty.
    int LoadList();
    // Replaces the file. A failure is logged.
    void SaveList();

    // Again, if the latest attempt failed.
    void SaveIfFailed();

    // `satellite` wants to hear of the services; if it did so before it is now the last in order. Saves the list once.
    // Names of services that are empty are left out. Nothing happens for an empty satellite, and when there would be
    // more than is allowed.
    enum class Added { all, nobodyAsks, tooMany };
    Added Add(const std::vector<CStdStr>& services, const CStdStr& satellite);
    Added Add(const CStdStr& service, const CStdStr& satellite) {
        return Add(std::vector<CStdStr>{service}, satellite);
    }
    // No longer. Saves the list, also when there was no such entry.
    void Remove(const std::vector<CStdStr>& services, const CStdStr& satellite);
    void Remove(const CStdStr& service, const CStdStr& satellite) { Remove(std::vector<CStdStr>{service}, satellite); }
    // `satellite` listens for nothing any more. Saves the list.
    void Remove(const CStdStr& satellite);

    // Tells all listeners of `service`, in the order of the list, that its state at `satellite` is now `status`: 1
    // available, 0 not. The caller has the service's turn.
    void Notify(const CStdStr& service, const CStdStr& satellite, int status);
    // Tells one listener of all satellites that publish `service`. Takes the service's turn, again and again where
    // there are many: before each it waits until the listener has heard most of what it was told. False when it gives
    // up, since the listener does not.
    bool Notify(const CStdStr& service, const CStdStr& listener);

    // The turns of the services.
    NameTurns& turns() { return turns_; }

private:
    struct ServiceSat {
        CStdStr service;
        CStdStr satellite;
    };
    using ServiceOf = boost::multi_index::member<ServiceSat, CStdStr, &ServiceSat::service>;
    using SatelliteOf = boost::multi_index::member<ServiceSat, CStdStr, &ServiceSat::satellite>;
    // In the order of (re-)addition; by both names; and, in the list's order among equals, by each of them.
    using Listeners = boost::multi_index_container<
        ServiceSat,
        boost::multi_index::indexed_by<
            boost::multi_index::sequenced<>,
            boost::multi_index::ordered_unique<boost::multi_index::composite_key<ServiceSat, ServiceOf, SatelliteOf>>,
            boost::multi_index::ordered_non_unique<ServiceOf>, boost::multi_index::ordered_non_unique<SatelliteOf>>>;
    enum Index { inOrder, byBoth, byService, bySatellite };

    int AddAll(const std::vector<CStdStr>& entries);
    bool TellNext(const CStdStr& service, const CStdStr& listener, CStdStr& last);
    bool HaveRoom(const std::vector<CStdStr>& services, const CStdStr& satellite);
    void Append(const CStdStr& service, const CStdStr& satellite);
    size_t Count();
    void SetAside(const kel::registry::Folder& folder);
    CStdStr Text();
    kel::registry::FileChange FileText();
    void Replace();

    SatelliteChannel* const sink_;
    ServiceProviders* const directory_;

    PLocker<Listeners> listeners_;
    NameTurns turns_;

    kel::registry::GroupCommit commit_{kel::registry::SyncsFiles(), [this] { return FileText(); }};
    kel::registry::Complaint fileFails_;
    SaidOnce isFolderMissed_;
    std::atomic<bool> isUnread_{false};  // the file could not be looked at when it was to be loaded
    std::atomic<bool> isLeft_{false};    // the file says what could not be read, and nothing has been added since
};
