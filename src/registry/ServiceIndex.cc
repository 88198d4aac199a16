#include "registry/ServiceIndex.h"

#include <cstdint>

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
    // FNV-1a, 64 bits.
    uint64_t hash = 14695981039346656037u;
    for (const char* at = name; *at != '\0'; ++at) {
        const char lowered = *at >= 'A' && *at <= 'Z' ? static_cast<char>(*at + ('a' - 'A')) : *at;
        hash = (hash ^ static_cast<unsigned char>(lowered)) * 1099511628211u;
    }
    return hash ^ (hash >> 32);  // the table takes the low bits
}
