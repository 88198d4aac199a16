// From a service's name to the satellites that publish it, so that a look-up costs what it finds and not what is
// registered. CRegistration keeps one beside its map, under the same lock; the class has none of its own.
#pragma once

#include "registry/SatelliteInfo.h"

#include <tsl/robin_set.h>

#include <cstddef>
#include <memory>
#include <set>

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
    struct Entry {
        explicit Entry(const CStdStr& name) : service(name) {}
        const CStdStr service;
        Providers providers;
    };
    using EntryPtr = std::unique_ptr<Entry>;

    static const char* NameOf(const CStdStr& service) { return service.c_str(); }
    static const char* NameOf(const EntryPtr& entry) { return entry->service.c_str(); }

    // Hash and equality that agree with ssicmp: no regard to ASCII case, up to the terminating NUL.
    struct NameHash {
        size_t operator()(const char* name) const;
        template <typename Key>
        size_t operator()(const Key& key) const {
            return (*this)(NameOf(key));
        }
    };
    struct NameEqual {
        using is_transparent = void;
        template <typename A, typename B>
        bool operator()(const A& a, const B& b) const {
            return ssicmp(NameOf(a), NameOf(b)) == 0;
        }
    };

    // An open-addressed table of pointers with their hashes: with many services a look-up touches one line of the table
    // and then the entry, which was allocated together with its satellite. Chains of nodes would lead through other
    // satellites' memory, and what a look-up costs with many is the distant memory that it touches.
    tsl::robin_set<EntryPtr, NameHash, NameEqual, std::allocator<EntryPtr>, true> entries_;
};
