// What the directory does for each published method: read the parameters, ask or change the registry, fill the answer.
// Nothing is changed before all parameters were read, so that a bad record leaves the registry as it was.
#include "directory/KelDirectory.h"

#include "directory/DirectorySink.h"
#include "foundation/Log.h"
#include "rpc/satellite/RunningCall.h"
#include "rpc/transport/Quietly.h"
#include "rpc/values/KelResult.h"
#include "rpc/values/VUtil.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

namespace {

constexpr size_t maxWaitingRegistrations = 1024;
constexpr size_t maxWaitingBytes = 16u << 20;

// Reads the first `count` entries; there may be fewer, which throws. Nothing is reserved by what a caller claims.
std::vector<KelService> ReadServices(tagVARIANT* entries, int count) {
    std::vector<KelService> services;
    for (int i = 0; i < count; ++i) {
        KelService service;
        GetService(entries, i, service.name, service.description);
        services.push_back(std::move(service));
    }
    return services;
}

void SetInt(tagVARIANT* out, int value) {
    VariantClear(out);
    out->vt = VT_I4;
    out->lVal = value;
}

ScopedVariant DescribeService(const KelServiceInfo& info) {
    return VUtil::MakeList(info.name, info.description, info.satName, info.ip, static_cast<unsigned short>(info.port),
                           info.hostname, static_cast<int>(info.kelProtocolVersion));
}

void LogFound(const std::vector<KelServiceInfo>& found, const CStdStr& service, const CStdStr& destination,
              const char* callerIp, const CStdStr& caller) {
    if (!CBBLog::isDebugEnabled()) return;
    if (found.empty()) {
        CBBLog::debug("No services found for %.1024s and destination %.1024s", service.c_str(), destination.c_str());
    } else if (found.size() > 1) {
        CBBLog::debug("Found %d services for %.1024s and destination %.1024s", static_cast<int>(found.size()),
                      service.c_str(), destination.c_str());
    } else {
        const KelServiceInfo& only = found.front();
        CBBLog::debug("GetServiceReg from %.1024s (%.16s) found: %.1024s %.1024s (%.16s:%d)", caller.c_str(), callerIp,
                      only.satName.c_str(), only.name.c_str(), only.ip.c_str(), only.port);
        CBBLog::debug("--name,host,port: %.1024s, %.16s, %d", only.satName.c_str(), only.ip.c_str(), only.port);
    }
}

// Reads the service names of a request, each once and where it stands last, and has `act` take them. Returns the
// request's result.
template <typename Act>
int WithServices(const tagVARIANT* in, tagVARIANT* out, const char* request, Act act) {
    VariantClear(out);
    if (!in) return KEL_UNKNOWN_SATELLITE;
    try {
        std::vector<CStdStr> services;
        std::set<CStdStr> known;
        for (int i = VUtil::GetArrayLength(*in) - 1; i >= 0; --i) {
            const CStdStr service = VUtil::GetStringElement(*in, i);
            if (known.insert(service).second) services.push_back(service);
        }
        std::reverse(services.begin(), services.end());
        return act(services);
    } catch (const KelException& failure) {
        CBBLog::error("%s failed: %s", request, failure.GetMessage());
        return KEL_UNREADABLE_PARAMETERS;
    }
}

}  // namespace

int GetRegistration(const tagVARIANT& in, CStdStr& name, CStdStr& host, unsigned short* port, int* protocolVersion,
                    int* satId, int* serviceCount, tagVARIANT* services) {
    VariantInit(services);
    name = VUtil::GetStringElement(in, 0);
    host = VUtil::GetStringElement(in, 1);
    *port = VUtil::GetUnsignedShortElement(in, 2);
    *protocolVersion = VUtil::GetIntElement(in, 3);
    *satId = VUtil::GetIntElement(in, 4);
    *serviceCount = VUtil::GetIntElement(in, 5);
    VUtil::GetElement(in, 6, *services);
    return 0;
}

int GetService(tagVARIANT* services, int i, CStdStr& name, CStdStr& description) {
    ScopedVariant entry;
    VUtil::GetElement(*services, i, entry);
    name = VUtil::GetStringElement(entry, 0);
    description = VUtil::GetStringElement(entry, 1);
    return 0;
}

// A registration record as a caller sent it.
struct KelDirectory::Record {
    CStdStr name;
    CStdStr host;
    unsigned short port = 0;
    int protocolVersion = 0;
    int satId = 0;
    int serviceCount = 0;
    ScopedVariant services;

    int Read(const tagVARIANT* in) {
        if (!in) return KEL_UNKNOWN_SATELLITE;
        return GetRegistration(*in, name, host, &port, &protocolVersion, &satId, &serviceCount, &services);
    }
};

// Has a name listed as being registered while it lives, unless the name was listed already.
class KelDirectory::PendingName {
public:
    PendingName(KelDirectory& directory, const CStdStr& name)
        : directory_(directory), name_(name), isMine_(directory.AddToPending(name)) {}
    ~PendingName() {
        if (isMine_) directory_.RemoveFromPending(name_);
    }
    PendingName(const PendingName&) = delete;
    PendingName& operator=(const PendingName&) = delete;

    bool IsMine() const { return isMine_; }

private:
    KelDirectory& directory_;
    const CStdStr& name_;
    const bool isMine_;
};

// A place among the registrations that wait, while it lives, if there is one.
class KelDirectory::WaitingPlace {
public:
    WaitingPlace(KelDirectory& directory, size_t bytes) : directory_(directory), bytes_(bytes) {
        const size_t waiting = ++directory_.waitingRegistrations_;
        const size_t waitingBytes = directory_.waitingBytes_ += bytes_;
        isThere_ = waiting <= maxWaitingRegistrations && waitingBytes <= maxWaitingBytes;
    }
    ~WaitingPlace() {
        --directory_.waitingRegistrations_;
        directory_.waitingBytes_ -= bytes_;
    }
    WaitingPlace(const WaitingPlace&) = delete;
    WaitingPlace& operator=(const WaitingPlace&) = delete;

    bool IsThere() const { return isThere_; }

private:
    KelDirectory& directory_;
    const size_t bytes_;
    bool isThere_;
};

// A registration under way.
struct KelDirectory::Registering {
    Record record;
    std::vector<KelService> services;
    CStdStr address;

    // Who has the name, if somebody does.
    bool isKnown = false;  // under the id that the record claims
    CStdStr holderHost;
    unsigned short holderPort = 0;
    int holderId = 0;

    std::optional<PendingName> pending;
    std::optional<WaitingPlace> place;

    int Read(const tagVARIANT* in) {
        if (const int rc = record.Read(in)) return rc;
        services = ReadServices(&record.services, record.serviceCount);
        record.services.clear();
        return 0;
    }
    size_t Bytes() const {
        size_t bytes = sizeof *this + record.name.size() + record.host.size();
        for (const KelService& service : services) {
            bytes += sizeof service + service.name.size() + service.description.size();
        }
        return bytes;
    }
};

int KelDirectory::SatRegister(const tagVARIANT* in, tagVARIANT* out, const char* callerIp, const CStdStr& caller) {
    if (!sink_) return KEL_NO_ENDPOINT;
    auto registering = std::make_unique<Registering>();
    if (const int rc = registering->Read(in)) return rc;
    const Record& record = registering->record;
    registering->address = getIPToUse(callerIp);
    if (CBBLog::isDebugEnabled()) {
        CBBLog::debug("Register from Satellite %s on %s(%s:%d) to %s, SatId %d", caller.c_str(), record.host.c_str(),
                      registering->address.c_str(), record.port, record.name.c_str(), record.satId);
    }

    if (!registering->pending.emplace(*this, record.name).IsMine()) {
        CBBLog::warn("## Register failed: another Satellite with the same name is currently Registering");
        return KEL_NAME_TAKEN;
    }
    if (!HasOtherHolder(*registering)) return Admit(*registering, out);
    return kel::RunningCall::IsUnderWay() ? AskHolderLater(std::move(registering)) : AskHolder(*registering, out);
}

// Whether a satellite has the name that is not, by its id, the one that registers.
bool KelDirectory::HasOtherHolder(Registering& registering) const {
    if (registration_.FindSatellite(registering.record.name, registering.holderHost, &registering.holderId,
                                    &registering.holderPort, nullptr) != 0) {
        return false;
    }
    registering.isKnown = registering.holderId == registering.record.satId;
    return !registering.isKnown;
}

int KelDirectory::AskHolder(Registering& registering, tagVARIANT* out) {
    int status = KELSTATUS_GONE;
    const int rc = sink_->PingSat(registering.record.name, registering.holderHost, registering.holderPort,
                                  registering.holderId, &status);
    return HearOfHolder(registering, rc, status, out);
}

// Asking may take ten seconds, and whoever registers names that lead nowhere must not hold a thread for each of them:
// the registration waits here and goes on, on a thread of the library's, when the holder has answered or not.
int KelDirectory::AskHolderLater(std::unique_ptr<Registering> registering) {
    const Registering& asked = *registering;
    if (!registering->place.emplace(*this, asked.Bytes()).IsThere()) {
        CBBLog::note("Registration of %.256s from %s refused: %zu others wait for the holders of their names to answer",
                     asked.record.name.c_str(), asked.address.c_str(), waitingRegistrations_.load() - 1);
        return KEL_NO_RESOURCES;
    }
    struct Waiting {
        std::unique_ptr<kel::LateAnswer> answer;
        std::unique_ptr<Registering> registering;  // the first to go: the name is free when the caller hears
    };
    const auto waiting = std::make_shared<Waiting>(Waiting{kel::RunningCall::PutOff(), std::move(registering)});
    sink_->PingSatLater(asked.record.name, asked.holderHost, asked.holderPort, asked.holderId,
                        [this, waiting](int rc, int status) {
                            GoOn([this, waiting, rc, status] {
                                waiting->answer->Give([&](ScopedVariant& out) {
                                    const std::unique_ptr<Registering> mine = std::move(waiting->registering);
                                    const int result = HearOfHolder(*mine, rc, status, &out);
                                    CDirectorySink::LogRegistered(result);
                                    return result;
                                });
                            });
                        });
    return answeredLater;
}

// Runs the rest of a registration, which waits for the disk, unless enough threads run others: then one of those does
// it next. Many pings end at the same time, and who wants something else must not stand behind all that is left to do.
void KelDirectory::GoOn(std::function<void()> rest) {
    if (!goOn_.Append(std::move(rest))) return;
    kel::RunningCall::AboutToBlock();
    while (const auto next = goOn_.Take()) kel::transport::Quietly(*next);
}

// The holder was asked, with the outcome of PingSat.
int KelDirectory::HearOfHolder(const Registering& registering, int rc, int status, tagVARIANT* out) {
    const CStdStr& name = registering.record.name;
    const char* const host = registering.holderHost.c_str();
    if (rc == 0 && status == KELSTATUS_ALIVE) {
        CBBLog::warn("Register failed, %s already exists", name.c_str());
        return KEL_NAME_TAKEN;
    }
    if (CBBLog::isDebugEnabled()) {
        CBBLog::debug("Satname %s dead on host %s:%d (satId %d)", name.c_str(), host, registering.holderPort,
                      registering.holderId);
    }
    if (ssicmp(name.c_str(), sink_->getSatelliteName()) != 0) {  // else what an earlier run left behind
        CBBLog::note("Satellite %.256s (satId %d) at %s:%d replaced by a new one at %s:%d: %s", name.c_str(),
                     registering.holderId, host, registering.holderPort, registering.address.c_str(),
                     registering.record.port, WhyNotAlive(rc, status).c_str());
    }
    if (const int failure = registration_.RemoveAndTell(name, registering.holderId)) return failure;
    return Admit(registering, out);
}

// Sees to it that the satellite has a record: the one that it says it has, or a new one.
int KelDirectory::Admit(const Registering& registering, tagVARIANT* out) {
    const Record& record = registering.record;
    if (!registration_.HasRoomFor(record.name, registering.services)) {
        CBBLog::note("Registration of %.256s from %s refused: the records of all satellites take %zu MiB",
                     record.name.c_str(), registering.address.c_str(), CRegistration::maxBytes >> 20);
        return KEL_NO_RESOURCES;
    }
    int satId = record.satId;
    if (!registering.isKnown) {
        if (satId != 0) CBBLog::info("SatId %d not found, registering %s", satId, record.name.c_str());
        satId = 0;
        registration_.AddSatellite(record.name, registering.address, record.port, record.host, record.protocolVersion,
                                   &satId);
        sink_->ForgetAddress(record.name.c_str());  // another satellite may listen there by now
    }
    VariantClear(out);
    *out = VUtil::MakeList(registration_.GetServerId(), satId).release();
    for (const KelService& service : registering.services) {
        if (const int rc = registration_.AddService(record.name, service.name, service.description)) return rc;
    }
    registration_.SerializeSatellite(record.name);
    return 0;
}

// Whether a request about the satellite `name` at the address `ip` comes from somebody else.
bool KelDirectory::IsSomebodyElse(const CStdStr& name, const CStdStr& ip, const char* callerIp,
                                  const CStdStr& caller) const {
    return ssicmp(name.c_str(), caller.c_str()) != 0 || (ip != callerIp && ip != getIPToUse(callerIp));
}

int KelDirectory::SatUnRegister(const tagVARIANT* in, tagVARIANT* out, const char* callerIp, const CStdStr& caller) {
    Record record;
    if (const int rc = record.Read(in)) return rc;
    if (CBBLog::isDebugEnabled()) {
        CBBLog::debug("UnRegister from %s (%s:%d, satId %d)", record.name.c_str(), getIPToUse(callerIp).c_str(),
                      record.port, record.satId);
    }
    CStdStr knownHost;
    int knownId = 0;
    unsigned short knownPort = 0;
    if (registration_.FindSatellite(record.name, knownHost, &knownId, &knownPort, nullptr) != 0)
        return KEL_UNKNOWN_SATELLITE;
    if (knownId != record.satId) return KEL_UNKNOWN_SATELLITE;

    int remaining = 0;
    const std::vector<KelService> services = ReadServices(&record.services, record.serviceCount);
    if (!services.empty() && IsSomebodyElse(record.name, knownHost, callerIp, caller)) {
        CBBLog::note("%zu services of %.256s (satId %d) at %s:%d withdrawn at the request of \"%.256s\" from %s",
                     services.size(), record.name.c_str(), knownId, knownHost.c_str(), knownPort, caller.c_str(),
                     callerIp);
    }
    for (const KelService& service : services) {
        if (const int rc = registration_.RemoveService(record.name, service.name, &remaining)) return rc;
    }
    SetInt(out, remaining);
    registration_.SerializeSatellite(record.name);
    return 0;
}

int KelDirectory::SatRemove(const tagVARIANT* in, const char* callerIp, const CStdStr& caller) {
    Record record;
    if (const int rc = record.Read(in)) return rc;
    if (CBBLog::isDebugEnabled()) {
        CBBLog::debug("RemoveSatellite %s (%s:%d, satId %d)", record.name.c_str(), getIPToUse(callerIp).c_str(),
                      record.port, record.satId);
    }
    CStdStr knownHost;
    int knownId = 0;
    unsigned short knownPort = 0;
    if (registration_.FindSatellite(record.name, knownHost, &knownId, &knownPort, nullptr) != 0) {
        CBBLog::warn("SatRemove: unknown satellite %s", record.name.c_str());
        return KEL_UNKNOWN_SATELLITE;
    }
    if (knownId != record.satId) {
        CBBLog::warn("SatRemove: invalid SatId %d (local: %d)", record.satId, knownId);
        return KEL_UNKNOWN_SATELLITE;
    }
    if (IsSomebodyElse(record.name, knownHost, callerIp, caller)) {
        CBBLog::note("Satellite %.256s (satId %d) at %s:%d removed at the request of \"%.256s\" from %s",
                     record.name.c_str(), knownId, knownHost.c_str(), knownPort, caller.c_str(), callerIp);
    }
    return registration_.RemoveAndTell(record.name, knownId);
}

int KelDirectory::SatGetService(const tagVARIANT* in, tagVARIANT* out, const char* callerIp, const CStdStr& caller) {
    VariantClear(out);
    if (!in) return KEL_UNKNOWN_SATELLITE;
    try {
        const CStdStr destination = VUtil::GetStringElement(*in, 0);
        const CStdStr service = VUtil::GetStringElement(*in, 1);
        const bool isAll = ssicmp(destination.c_str(), "all") == 0;
        const bool isAny = destination.empty() || ssicmp(destination.c_str(), "any") == 0;

        std::vector<KelServiceInfo> found;
        const int rc = isAny ? registration_.GetLastServiceInfo(service, found, callerIp)
                             : registration_.GetServiceInfo(service, isAll ? CStdStr() : destination, found, callerIp);
        if (rc != 0) return rc;
        *out = VUtil::MakeListOf(found, DescribeService).release();
        LogFound(found, service, destination, callerIp, caller);
        return 0;
    } catch (const KelException& failure) {
        CBBLog::error("SatGetService failed: %s", failure.GetMessage());
        return KEL_UNREADABLE_PARAMETERS;
    }
}

int KelDirectory::SatGetHostName(const tagVARIANT& in, tagVARIANT* out, const char* callerIp) {
    try {
        VUtil::CheckType(in, VT_BSTR);
        const CStdStr name(in.bstrVal);
        CStdStr address;
        int satId = 0;
        unsigned short port = 0;
        if (registration_.FindSatellite(name, address, &satId, &port, callerIp) != 0) return KEL_UNKNOWN_SATELLITE;
        if (CBBLog::isDebugEnabled()) {
            CBBLog::debug("Found Satname HostIp: %.1024s  %.16s:%d (satId %d)", name.c_str(), address.c_str(), port,
                          satId);
        }
        VariantClear(out);
        *out = VUtil::MakeList(address, static_cast<int>(port)).release();
        return 0;
    } catch (const KelException& failure) {
        CBBLog::error("SatGetHostname failed: %s", failure.GetMessage());
        return KEL_UNREADABLE_PARAMETERS;
    }
}

int KelDirectory::SatGetId(const tagVARIANT* in, tagVARIANT* out, const char* callerIp, const CStdStr& /*caller*/) {
    if (!in) return KEL_UNKNOWN_SATELLITE;
    const char* const name = in->vt == VT_BSTR ? in->bstrVal : nullptr;
    CStdStr host;
    int satId = 0;
    unsigned short port = 0;
    if (registration_.FindSatellite(name ? name : "", host, &satId, &port, callerIp) != 0) return KEL_UNKNOWN_NAME;
    SetInt(out, satId);
    return 0;
}

int KelDirectory::SatSetBeRightBack(const tagVARIANT* in, tagVARIANT* out, const char* callerIp,
                                    const CStdStr& caller) {
    if (!in) return KEL_UNKNOWN_SATELLITE;
    if (in->vt != VT_I4) {
        CBBLog::info("SatSetBeRightBack from %s: Wrong inparams!", caller.c_str());
        return KEL_WRONG_PARAMETER;
    }
    if (registration_.SetBeRightBackTimer(caller, in->lVal) != 0) return KEL_UNKNOWN_NAME;
    CStdStr host;
    int satId = 0;
    unsigned short port = 0;
    if (registration_.FindSatellite(caller, host, &satId, &port, nullptr) == 0 &&
        IsSomebodyElse(caller, host, callerIp, caller)) {
        CBBLog::note("Satellite %.256s (satId %d) at %s:%d is not checked for %d s at the request of %s",
                     caller.c_str(), satId, host.c_str(), port, in->lVal, callerIp);
    }
    SetInt(out, 0);
    return 0;
}

int KelDirectory::AddServiceListener(const tagVARIANT* in, tagVARIANT* out, const CStdStr& caller) {
    return WithServices(in, out, "AddServiceListener", [&](const std::vector<CStdStr>& services) {
        if (!serviceAvailability_) return KEL_OK;
        const auto added = serviceAvailability_->Add(services, caller);
        if (added == ServiceAvailability::Added::tooMany) return KEL_LIMIT_REACHED;
        for (const CStdStr& service : services) {
            if (added != ServiceAvailability::Added::all || !serviceAvailability_->Notify(service, caller)) break;
        }
        return KEL_OK;
    });
}

int KelDirectory::RemoveServiceListener(const tagVARIANT* in, tagVARIANT* out, const CStdStr& caller) {
    return WithServices(in, out, "RemoveServiceListener", [&](const std::vector<CStdStr>& services) {
        if (serviceAvailability_) serviceAvailability_->Remove(services, caller);
        return KEL_OK;
    });
}

int KelDirectory::GetServices(const CStdStr& serviceName, std::list<CStdStr>& satellites) {
    return registration_.GetProviders(serviceName, satellites);
}
