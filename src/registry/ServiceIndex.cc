#include "registry/ServiceIndex.h"

#include <cstdint>

void ServiceIndex::Add(const CStdStr& service, const KelSatelliteInfo& satellite) {
    Providers& providers = providers_[service];
    // The end is where the next of many in order belongs; elsewhere the hint costs one comparison.
    providers.insert(providers.end(), &satellite);
}

void ServiceIndex::Remove(const CStdStr& service, const KelSatelliteInfo& satellite) {
    const auto entry = providers_.find(service);
    if (entry == providers_.end()) return;
    entry->second.erase(&satellite);
    if (entry->second.empty()) providers_.erase(entry);
}

const ServiceIndex::Providers* ServiceIndex::Find(const CStdStr& service) const {
    const auto entry = providers_.find(service);
    return entry == providers_.end() ? nullptr : &entry->second;
}

size_t ServiceIndex::NameHash::operator()(const CStdStr& name) const {
    // FNV-1a, 64 bits.
    uint64_t hash = 14695981039346656037u;
    for (const char* at = name.c_str(); *at != '\0'; ++at) {
        const char lowered = *at >= 'A' && *at <= 'Z' ? static_cast<char>(*at + ('a' - 'A')) : *at;
        hash = (hash ^ static_cast<unsigned char>(lowered)) * 1099511628211u;
    }
    return hash;
}
