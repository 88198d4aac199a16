// From a service's name to the satellites that publish it, so that a look-up costs what it finds and not what is
// registered. CRegistration keeps one beside its map, under the same lock; the class has none of its own.
#pragma once

#include "registry/SatelliteInfo.h"

#include <cstddef>
#include <set>
#include <unordered_map>

class ServiceIndex {
public:
    // The order of the registry's map.
    struct ByName {
        bool operator()(const KelSatelliteInfo* a, const KelSatelliteInfo* b) const {
            return ssicmp(a->satName.c_str(), b->satName.c_str()) < 0;
        }
    };
    using Providers = std::set<const KelSatelliteInfo*, ByName>;

    // `satellite` must stay alive until it is removed; of one name, at most one record may be in the index.
    void Add(const CStdStr& service, const KelSatelliteInfo& satellite);
    void Remove(const CStdStr& service, const KelSatelliteInfo& satellite);

    // The providers of `service`, never an empty set; null when there are none.
    const Providers* Find(const CStdStr& service) const;

private:
    // Hash and equality that agree with ssicmp: no regard to ASCII case, up to the terminating NUL.
    struct NameHash {
        size_t operator()(const CStdStr& name) const;
    };
    struct NameEqual {
        bool operator()(const CStdStr& a, const CStdStr& b) const { return ssicmp(a.c_str(), b.c_str()) == 0; }
    };

    std::unordered_map<CStdStr, Providers, NameHash, NameEqual> providers_;
};
