#include "registry/Registration.h"

#include "foundation/Log.h"
#include "foundation/NetworkUtils.h"
#include "foundation/Random.h"
#include "registry/ServiceAvailability.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <utility>

namespace {

constexpr int serverIdLength = 16;
constexpr const char* loopback = "127.0.0.1";

// What records take, with what the map and the index keep for them.
constexpr size_t satelliteBytes = 640;
constexpr size_t serviceBytes = 300;

size_t BytesOf(const KelService& service) {
    return serviceBytes + 2 * service.name.size() + service.description.size();
}

size_t BytesOf(const KelSatelliteInfo& satellite) KEL_REQUIRES_SHARED(satellite.lock) {
    size_t bytes = satelliteBytes + 2 * satellite.satName.size() + satellite.hostname.size();
    for (const auto& [name, service] : satellite.services) bytes += BytesOf(service);
    return bytes;
}

// Whether the asker at `destination` is on another machine than a satellite on the directory's own.
bool IsElsewhere(const CStdStr& ip, const char* destination) {
    return destination && ip == loopback && ip != destination;
}

}  // namespace

CRegistration::CRegistration(Clock upTime)
    : upTime_(upTime),
      serverId_(CRandom::s_random.genrand_string(serverIdLength, CRandom::alphanumeric)),
      runningChecks_(boost::make_shared<RunningChecks>()) {
    CreateFolders();
    if (CBBLog::isDebugEnabled()) CBBLog::debug("CreateRegistration() Completed");
}

CRegistration::~CRegistration() = default;

CStdStr CRegistration::GetServerId() const {
    PReadHold hold(lock_);
    return serverId_;
}

size_t CRegistration::Count() const {
    PReadHold hold(lock_);
    return satellites_.size();
}

CRegistration::SatellitePtr CRegistration::GetSatelliteStruct(const CStdStr& name) const {
    PReadHold hold(lock_);
    const auto entry = satellites_.find(name);
    return entry == satellites_.end() ? nullptr : entry->second;
}

int CRegistration::AddSatellite(const CStdStr& name, const CStdStr& ip, unsigned short port, const CStdStr& hostname,
                                int kelProtocolVersion, int* satId) {
    const auto fresh = boost::make_shared<KelSatelliteInfo>();
    fresh->satName = name;
    fresh->ip = ip;
    fresh->hostname = hostname;
    fresh->port = port;
    fresh->kelProtocolVersion = kelProtocolVersion;

    fresh->satId = *satId;

    SatellitePtr old;  // freed after the lock is released
    const NameTurns::Hold turn(turns_, name);
    PWriteHold hold(lock_);
    old = Insert(fresh, Insertion::always);
    *satId = fresh->satId;
    return 0;
}

CRegistration::SatellitePtr CRegistration::Insert(const SatellitePtr& fresh, Insertion rule) {
    SatellitePtr old;
    const size_t countBefore = satellites_.size();
    // The end is where the next of many in order belongs; elsewhere the hint costs one comparison.
    const auto entry = satellites_.try_emplace(satellites_.end(), fresh->satName, fresh);
    if (satellites_.size() == countBefore) {
        if (rule == Insertion::ifNewer && entry->second->satId >= fresh->satId) return fresh;
        if (rule == Insertion::ifNotOlder && entry->second->satId > fresh->satId) return fresh;
        old = entry->second;
        Replace(*old, *fresh);
        auto node = satellites_.extract(entry);
        node.key() = fresh->satName;
        node.mapped() = fresh;
        satellites_.insert(std::move(node));
    }
    if (fresh->satId == 0) fresh->satId = ++lastSatId_;
    PWriteHold holdFresh(fresh->lock);
    for (auto& [name, service] : fresh->services) providers_.Add(service, *fresh);
    bytes_ += BytesOf(*fresh);
    return old;
}

// Takes `old` out of the index and has `fresh` remember whose files it leaves behind.
void CRegistration::Replace(KelSatelliteInfo& old, KelSatelliteInfo& fresh) {
    PWriteHold holdOld(old.lock);
    PWriteHold holdFresh(fresh.lock);
    for (auto& [name, service] : old.services) providers_.Remove(service);
    bytes_ -= BytesOf(old);

    fresh.formerFiles = old.formerFiles;
    fresh.formerFiles.push_back({old.satName, true});
    std::erase_if(fresh.formerFiles, [&](const auto& file) { return file.name == fresh.satName; });
    for (auto& file : fresh.formerFiles) file.isReplaced = true;
}

int CRegistration::FindSatellite(const char* name, CStdStr& ip, int* satId, unsigned short* port,
                                 const char* destination) const {
    {
        PReadHold hold(lock_);
        const auto entry = satellites_.find(name);
        if (entry == satellites_.end()) return unknownSatellite;
        const KelSatelliteInfo& satellite = *entry->second;
        ip = satellite.ip;
        *satId = satellite.satId;
        *port = satellite.port;
    }
    return IsElsewhere(ip, destination) ? GetBestIPForDestination(destination, ip) : 0;
}

int CRegistration::GetBestIPForDestination(const char* destination, CStdStr& ip) {
    ip = yar::networkutils::GetIPForDestination(destination).first;
    return 0;
}

// The routes are read once for the answer, and with no lock held.
int CRegistration::GiveBestIPs(std::vector<KelServiceInfo>& infos, size_t first, const char* destination) {
    CStdStr best;
    bool isKnown = false;
    for (size_t i = first; i < infos.size(); ++i) {
        if (!IsElsewhere(infos[i].ip, destination)) continue;
        if (!isKnown) {
            if (const int rc = GetBestIPForDestination(destination, best)) return rc;
            isKnown = true;
        }
        infos[i].ip = best;
    }
    return 0;
}

int CRegistration::GetServiceInfo(const CStdStr& service, const CStdStr& satName, std::vector<KelServiceInfo>& out,
                                  const char* destination) const {
    const size_t first = out.size();
    AppendServices(service, satName, out);
    return GiveBestIPs(out, first, destination);
}

int CRegistration::GetLastServiceInfo(const CStdStr& service, std::vector<KelServiceInfo>& out,
                                      const char* destination) const {
    const size_t first = out.size();
    AppendLastService(service, out);
    return GiveBestIPs(out, first, destination);
}

void CRegistration::AppendServices(const CStdStr& service, const CStdStr& satName,
                                   std::vector<KelServiceInfo>& out) const {
    PReadHold hold(lock_);
    if (!satName.empty()) {
        const auto entry = satellites_.find(satName);
        if (entry != satellites_.end()) AppendServiceOf(*entry->second, service, out);
        return;
    }
    const ServiceIndex::Providers* providers = providers_.Find(service);
    if (!providers) return;
    for (const KelService& provided : *providers) Describe(*provided.indexedSatellite, provided, out.emplace_back());
}

void CRegistration::AppendLastService(const CStdStr& service, std::vector<KelServiceInfo>& out) const {
    PReadHold hold(lock_);
    const KelService* last = providers_.FindLast(service);
    if (last) Describe(*last->indexedSatellite, *last, out.emplace_back());
}

void CRegistration::AppendServiceOf(const KelSatelliteInfo& satellite, const CStdStr& service,
                                    std::vector<KelServiceInfo>& out) const {
    const auto entry = satellite.services.find(service);
    if (entry != satellite.services.end()) Describe(satellite, entry->second, out.emplace_back());
}

void CRegistration::Describe(const KelSatelliteInfo& satellite, const KelService& service, KelServiceInfo& info) {
    info.name = service.name;
    info.description = service.description;
    info.satName = satellite.satName;
    info.ip = satellite.ip;
    info.port = satellite.port;
    info.hostname = satellite.hostname;
    info.satId = satellite.satId;
    info.kelProtocolVersion = satellite.kelProtocolVersion;
}

int CRegistration::GetProviders(const CStdStr& service, std::list<CStdStr>& satellites) const {
    PReadHold hold(lock_);
    const ServiceIndex::Providers* providers = providers_.Find(service);
    if (!providers) return 0;
    for (const KelService& provided : *providers) {
        PReadHold holdSatellite(provided.indexedSatellite->lock);
        if (!provided.isToldGone) satellites.push_back(provided.indexedSatellite->satName);
    }
    return 0;
}

bool CRegistration::HasRoomFor(const CStdStr& satName, const std::vector<KelService>& services) const {
    PReadHold hold(lock_);
    size_t needed = satelliteBytes + 2 * satName.size();
    for (const KelService& service : services) needed += BytesOf(service);
    if (bytes_ + needed <= maxBytes) return true;
    const auto entry = satellites_.find(satName);
    if (entry == satellites_.end()) return false;
    PReadHold holdSatellite(entry->second->lock);
    needed = 0;
    for (const KelService& service : services) {
        const auto published = entry->second->services.find(service.name);
        const size_t before = published == entry->second->services.end() ? 0 : BytesOf(published->second);
        needed += std::max(BytesOf(service), before) - before;
    }
    return bytes_ + needed <= maxBytes;
}

int CRegistration::AddService(const CStdStr& satName, const CStdStr& service, const CStdStr& description) {
    const NameTurns::Hold turn(availability_ ? &availability_->turns() : nullptr, service);
    SatellitePtr satellite;
    {
        PWriteHold hold(lock_);
        const auto entry = satellites_.find(satName);
        if (entry == satellites_.end()) return noSuchSatellite;
        satellite = entry->second;

        PWriteHold holdSatellite(satellite->lock);
        KelService& published = satellite->services[service];
        if (published.indexHook.is_linked()) bytes_ -= BytesOf(published);
        published.name = service;
        published.description = description;
        bytes_ += BytesOf(published);
        published.isToldGone = false;
        if (!published.indexHook.is_linked()) providers_.Add(published, *satellite);
    }
    if (availability_) availability_->Notify(service, satellite->satName, 1);
    return 0;
}

int CRegistration::RemoveService(const CStdStr& satName, const CStdStr& service, int* remaining) {
    const NameTurns::Hold turn(availability_ ? &availability_->turns() : nullptr, service);
    SatellitePtr satellite;
    CStdStr publishedAs;
    bool isNews = false;
    {
        PWriteHold hold(lock_);
        const auto entry = satellites_.find(satName);
        if (entry == satellites_.end()) return noSuchSatellite;
        satellite = entry->second;

        PWriteHold holdSatellite(satellite->lock);
        const auto published = satellite->services.find(service);
        if (published != satellite->services.end()) {
            publishedAs = published->second.name;
            isNews = !published->second.isToldGone;
            bytes_ -= BytesOf(published->second);
            providers_.Remove(published->second);
            satellite->services.erase(published);
        }
        *remaining = static_cast<int>(satellite->services.size());
    }
    if (!isNews || !availability_) return 0;
    availability_->Notify(publishedAs, satellite->satName, 0);
    if (publishedAs != service) availability_->Notify(service, satellite->satName, 0);
    return 0;
}

int CRegistration::RemoveSatellite(const CStdStr& name, int satId) {
    DeleteFormerFiles(name, satId, true);
    // File, record and subscriptions go in one turn: nobody writes the file again in between, and a satellite that
    // registers anew has no record, and so has not subscribed again, before the old subscriptions are gone.
    NameTurns::Hold turn(turns_, name);
    if (DeleteFileInTurn(name, satId) == satIdMismatch) return 0;
    const SatellitePtr gone = EraseSatellite(name, satId);
    if (!availability_) return 0;
    availability_->Remove(name);
    if (gone && gone->satName != name) availability_->Remove(gone->satName);  // it may have used either spelling
    return 0;
}

CRegistration::SatellitePtr CRegistration::EraseSatellite(const CStdStr& name, int satId) {
    PWriteHold hold(lock_);
    const auto entry = satellites_.find(name);
    if (entry == satellites_.end() || entry->second->satId != satId) return nullptr;
    const SatellitePtr gone = entry->second;
    satellites_.erase(entry);
    PWriteHold holdGone(gone->lock);
    bytes_ -= BytesOf(*gone);
    for (auto& [service, published] : gone->services) providers_.Remove(published);
    return gone;
}

bool CRegistration::Publishes(const CStdStr& name, const CStdStr& service) const {
    PReadHold hold(lock_);
    const auto entry = satellites_.find(name);
    if (entry == satellites_.end()) return false;
    PReadHold holdSatellite(entry->second->lock);
    return entry->second->services.count(service) > 0;
}

int CRegistration::SetBeRightBackTimer(const CStdStr& name, int seconds) {
    const SatellitePtr satellite = GetSatelliteStruct(name);
    if (!satellite) return noSuchSatellite;
    if (CBBLog::isDebugEnabled()) CBBLog::debug("SetBeRightBackTimer for %s %ds", name.c_str(), seconds);
    satellite->beRightBackDeadline = upTime_() + static_cast<uint32_t>(seconds) * 1000u;
    return 0;
}
