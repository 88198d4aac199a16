#include "registry/ServiceIndex.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <utility>

namespace {

constexpr size_t cacheLine = 64;
constexpr size_t describedBytes = 128;  // of a satellite's record, at its start: what an answer takes of it

uint64_t RandomNumber() {
    std::random_device source;
    return uint64_t{source()} << 32 | source();
}

void Fetch(const void* memory, size_t size) {
    for (size_t at = 0; at < size; at += cacheLine) __builtin_prefetch(static_cast<const char*>(memory) + at);
}

}  // namespace

ServiceIndex::Last::Last(const KelService& service)
    : service_(&service), satellite_(service.indexedSatellite), text_(service.name.data()) {}

const char* ServiceIndex::Last::Name() const {
    Fetch(service_, sizeof *service_);
    Fetch(satellite_, describedBytes);
    Fetch(text_, 2 * cacheLine);  // the description's often lies behind it
    return service_->name.c_str();
}

void ServiceIndex::Add(KelService& service, const KelSatelliteInfo& satellite) {
    service.indexedSatellite = &satellite;
    const auto found = entries_.find(service.name);
    if (found != entries_.end()) {
        // The end is where the next of many in order belongs; elsewhere the hint costs one comparison.
        found->providers->insert(found->providers->end(), service);
        found->last = Last(*found->providers->rbegin());
        return;
    }
    auto providers = std::make_unique<Providers>();
    providers->insert(service);
    entries_.insert(Entry{std::move(providers), Last(service)});
}

void ServiceIndex::Remove(KelService& service) {
    if (!service.indexHook.is_linked()) return;
    const auto found = entries_.find(service.name);
    Providers& providers = *found->providers;
    if (&*providers.begin() == &service && &*providers.rbegin() == &service) {
        entries_.erase(found);  // with the set, which unlinks its last record
    } else {
        providers.erase(Providers::s_iterator_to(service));
        found->last = Last(*providers.rbegin());
    }
}

const ServiceIndex::Providers* ServiceIndex::Find(const CStdStr& service) const {
    const auto found = entries_.find(service);
    return found == entries_.end() ? nullptr : found->providers.get();
}

const KelService* ServiceIndex::FindLast(const CStdStr& service) const {
    const auto found = entries_.find(service);
    return found == entries_.end() ? nullptr : found->last.service();
}

size_t ServiceIndex::NameHash::operator()(const char* name) const {
    // FNV-1a with a start and a factor of this process's own: names come from strangers, who must not be able to choose
    // many that meet in one place.
    static const uint64_t start = RandomNumber();
    static const uint64_t factor = RandomNumber() | 1;
    uint64_t hash = start;
    for (const char* at = name; *at != '\0'; ++at) {
        const char lowered = *at >= 'A' && *at <= 'Z' ? static_cast<char>(*at + ('a' - 'A')) : *at;
        hash = (hash ^ static_cast<unsigned char>(lowered)) * factor;
    }
    return hash ^ (hash >> 32);  // the table takes the low bits
}
