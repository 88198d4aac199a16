#include "registry/ServiceIndex.h"

#include <cstdint>
#include <random>

namespace {

uint64_t RandomNumber() {
    std::random_device source;
    return uint64_t{source()} << 32 | source();
}

}  // namespace

void ServiceIndex::Add(const CStdStr& service, const KelSatelliteInfo& satellite) {
    auto found = entries_.find(service);
    if (found == entries_.end()) found = entries_.insert(std::make_unique<Entry>(service)).first;
    // The end is where the next of many in order belongs; elsewhere the hint costs one comparison.
    Providers& providers = (*found)->providers;
    providers.insert(providers.end(), &satellite);
}

void ServiceIndex::Remove(const CStdStr& service, const KelSatelliteInfo& satellite) {
    const auto found = entries_.find(service);
    if (found == entries_.end()) return;
    Providers& providers = (*found)->providers;
    providers.erase(&satellite);
    if (providers.empty()) entries_.erase(found);
}

const ServiceIndex::Providers* ServiceIndex::Find(const CStdStr& service) const {
    const auto found = entries_.find(service);
    return found == entries_.end() ? nullptr : &(*found)->providers;
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
