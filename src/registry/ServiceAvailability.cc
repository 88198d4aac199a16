#include "registry/ServiceAvailability.h"

#include "foundation/Log.h"
#include "registry/DataFiles.h"
#include "registry/XmlTags.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

using namespace kel::registry;

namespace {

constexpr size_t toldAtOnce = 400;  // well below what may wait for a listener

constexpr const char* rootTag = "serviceListeners";
constexpr const char* entryTag = "serviceListener";
constexpr const char* serviceTag = "service";
constexpr const char* satelliteTag = "satellite";

constexpr const char* listFile = "ServiceListeners.xml";

bool HasMark(const CStdStr& value, const char* tag) {
    const CStdStr name(tag);
    return value.find("<" + name + ">") != CStdStr::npos || value.find("</" + name + ">") != CStdStr::npos;
}

// Whether a value can stand in the file, where nothing is escaped, without taking other entries away when it is read.
bool CanBeStored(const CStdStr& value) {
    if (value.find('<') == CStdStr::npos) return true;
    return !HasMark(value, entryTag) && !HasMark(value, serviceTag) && !HasMark(value, satelliteTag);
}

// The one value of `tag` in an entry; false when there is none, more than one or an empty one.
bool OneName(const CStdStr& entry, const char* tag, CStdStr& name) {
    std::vector<CStdStr> values;
    if (getXMLTagValue(entry, tag, values) != 0 || values.size() != 1) return false;
    name = values.front();
    return !name.empty();
}

void LogNotice(const CStdStr& listener, int status, const CStdStr& service, const CStdStr& satellite) {
    if (!CBBLog::isDebugEnabled()) return;
    CBBLog::debug("Notify %s of Status %d for Service %s at %s", listener.c_str(), status, service.c_str(),
                  satellite.c_str());
}

void LogRemoval(const CStdStr& service, const CStdStr& satellite) {
    if (!CBBLog::isDebugEnabled()) return;
    CBBLog::debug("Remove Service Listener on %s for %s", service.c_str(), satellite.c_str());
}

}  // namespace

ServiceAvailability::Added ServiceAvailability::Add(const std::vector<CStdStr>& services, const CStdStr& satellite) {
    if (satellite.empty()) return Added::nobodyAsks;
    if (!HaveRoom(services, satellite)) {
        CBBLog::error("%.1024s may not listen for %zu services more: at most %zu for one satellite, %zu in all",
                      satellite.c_str(), services.size(), maxServicesOfOne, maxEntries);
        return Added::tooMany;
    }
    for (const CStdStr& service : services) {
        if (!service.empty()) Append(service, satellite);
    }
    SaveList();
    return Added::all;
}

bool ServiceAvailability::HaveRoom(const std::vector<CStdStr>& services, const CStdStr& satellite) {
    if (services.size() > maxServicesOfOne) return false;
    PMutexHold hold(listeners_);
    const auto& entries = listeners_.value().get<byBoth>();
    const size_t added =
        static_cast<size_t>(std::count_if(services.begin(), services.end(), [&](const CStdStr& service) {
            return entries.find(boost::make_tuple(service, satellite)) == entries.end();
        }));
    return listeners_.value().size() + added <= maxEntries &&
           listeners_.value().get<bySatellite>().count(satellite) + added <= maxServicesOfOne;
}

void ServiceAvailability::Append(const CStdStr& service, const CStdStr& satellite) {
    if (CBBLog::isDebugEnabled()) {
        CBBLog::debug("Add Service Listener on %s for %s", service.c_str(), satellite.c_str());
    }
    PMutexHold hold(listeners_);
    auto& entries = listeners_.value().get<byBoth>();
    const auto known = entries.find(boost::make_tuple(service, satellite));
    if (known != entries.end()) entries.erase(known);
    listeners_.value().get<inOrder>().push_back({service, satellite});
}

void ServiceAvailability::Remove(const std::vector<CStdStr>& services, const CStdStr& satellite) {
    for (const CStdStr& service : services) {
        LogRemoval(service, satellite);
        PMutexHold hold(listeners_);
        auto& entries = listeners_.value().get<byBoth>();
        const auto known = entries.find(boost::make_tuple(service, satellite));
        if (known != entries.end()) entries.erase(known);
    }
    SaveList();
}

void ServiceAvailability::Remove(const CStdStr& satellite) {
    std::vector<CStdStr> services;
    {
        PMutexHold hold(listeners_);
        auto& entries = listeners_.value().get<bySatellite>();
        const auto [begin, end] = entries.equal_range(satellite);
        std::transform(begin, end, std::back_inserter(services), [](const ServiceSat& entry) { return entry.service; });
        entries.erase(begin, end);
    }
    for (const CStdStr& service : services) LogRemoval(service, satellite);
    SaveList();
}

void ServiceAvailability::Notify(const CStdStr& service, const CStdStr& satellite, int status) {
    std::vector<CStdStr> told;
    {
        PMutexHold hold(listeners_);
        const auto [begin, end] = listeners_.value().get<byService>().equal_range(service);
        std::transform(begin, end, std::back_inserter(told), [](const ServiceSat& entry) { return entry.satellite; });
    }
    for (const CStdStr& listener : told) {
        LogNotice(listener, status, service, satellite);
        sink_->OnServiceAvailabilityChanged(service, satellite, listener, status);
    }
}

bool ServiceAvailability::Notify(const CStdStr& service, const CStdStr& listener) {
    CStdStr last;
    do {
        if (!sink_->AwaitListener(listener)) {
            CBBLog::warn("%.1024s does not take in who publishes %.1024s; it was told up to \"%.1024s\"",
                         listener.c_str(), service.c_str(), last.c_str());
            return false;
        }
    } while (TellNext(service, listener, last));
    return true;
}

// Tells of the next providers behind `last` in their order, which becomes the last of them; false when that were all.
bool ServiceAvailability::TellNext(const CStdStr& service, const CStdStr& listener, CStdStr& last) {
    const NameTurns::Hold turn(turns_, service);
    std::list<CStdStr> providers;
    if (directory_->GetServices(service, providers) != 0) return false;
    size_t told = 0;
    for (const CStdStr& provider : providers) {
        if (!last.empty() && !CaseInsensitiveLess()(last, provider)) continue;
        if (told++ == toldAtOnce) return true;
        LogNotice(listener, 1, service, provider);
        sink_->OnServiceAvailabilityChanged(service, provider, listener, 1);
        last = provider;
    }
    return false;
}

// --- The file ---

void ServiceAvailability::SaveList() {
    if (isLeft_ && Count() == 0) return;
    isLeft_ = false;
    try {
        Replace();
    } catch (const std::exception& failure) {
        CBBLog::error("CRegistration::SaveList data directory not found");
        if (isFolderMissed_.Begins()) CBBLog::error("The listeners are kept in memory only: %s", failure.what());
    }
}

void ServiceAvailability::Replace() {
    const GroupCommit::Outcome outcome = commit_.WriteAfterFirst(nullptr);
    if (!outcome.problem.empty()) throw FolderError(outcome.problem);
    fileFails_.Take(outcome.first, "write", RegistrationFolder, listFile);
    isFolderMissed_.Ends();
}

FileChange ServiceAvailability::FileText() {
    if (isUnread_) {
        RegistrationFolder().KeepDamaged(listFile);
        isUnread_ = false;
    }
    return {&RegistrationFolder, listFile, Text()};
}

void ServiceAvailability::SaveIfFailed() {
    if (!fileFails_.IsOpen() && !isFolderMissed_.isSo()) return;
    try {
        Replace();
    } catch (const std::exception&) {  // which was said when the folder was first missed
    }
}

size_t ServiceAvailability::Count() {
    PMutexHold hold(listeners_);
    return listeners_.value().size();
}

CStdStr ServiceAvailability::Text() {
    CStdStr text("<?xml version='1.0'?>\n");
    text.append("<").append(rootTag).append(">\n");
    {
        PMutexHold hold(listeners_);
        for (const ServiceSat& entry : listeners_.value()) {
            if (!CanBeStored(entry.service) || !CanBeStored(entry.satellite)) continue;
            text.append("\t<").append(entryTag).append(">\n");
            AppendTag(text, "\t\t", serviceTag, entry.service);
            AppendTag(text, "\t\t", satelliteTag, entry.satellite);
            text.append("\t</").append(entryTag).append(">\n");
        }
    }
    text.append("</").append(rootTag).append(">\n");
    return text;
}

int ServiceAvailability::LoadList() {
    try {
        const Folder folder = RegistrationFolder();
        CStdStr text;
        const int error = folder.Read(listFile, text);
        if (error == ENOENT) return 0;
        if (error != 0) CBBLog::error("Could not read %s: %s", folder.PathOf(listFile).c_str(), std::strerror(error));
        std::vector<CStdStr> entries;
        const bool isSplit = getXMLTagValue(text, entryTag, entries) == 0;
        const int result = isSplit ? AddAll(entries) : brokenFile;
        if (result != 0 || error != 0) SetAside(folder);
        if (Count() > 0 && Text() != text) SaveList();
        return result;
    } catch (const std::exception&) {
        isUnread_ = true;
        CBBLog::error("CRegistration::LoadList data directory not found");
        return 0;
    }
}

// Keeps the file that could not be read to its end.
void ServiceAvailability::SetAside(const Folder& folder) {
    isLeft_ = true;
    const CStdStr kept = folder.KeepDamaged(listFile);
    CBBLog::error("%s is damaged: %zu entries could be read%s%s", folder.PathOf(listFile).c_str(), Count(),
                  kept.empty() ? "" : "; it is kept as ", kept.c_str());
}

int ServiceAvailability::AddAll(const std::vector<CStdStr>& entries) {
    size_t added = 0;
    for (const CStdStr& entry : entries) {
        CStdStr service;
        CStdStr satellite;
        if (!OneName(entry, serviceTag, service) || !OneName(entry, satelliteTag, satellite)) break;
        Append(service, satellite);
        ++added;
    }
    return added == entries.size() ? 0 : brokenFile;
}
