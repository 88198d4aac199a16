// From a service's name to the satellites that publish it, so that a look-up costs what it finds and not what is
// registered. CRegistration keeps one beside its map, under the same lock; the class has none of its own.
#pragma once

#include "registry/SatelliteInfo.h"

#include <tsl/robin_set.h>
#include <boost/intrusive/set.hpp>

#include <cstddef>
#include <memory>

class ServiceIndex {
public:
    ServiceIndex() { entries_.max_load_factor(maxLoad); }

    // The order of the registry's map.
    struct ByName {
        bool operator()(const KelService& a, const KelService& b) const {
            return ssicmp(a.indexedSatellite->satName.c_str(), b.indexedSatellite->satName.c_str()) < 0;
        }
    };
    // Links through the records themselves: from the index, a look-up comes straight to what it answers.
    using Providers = boost::intrusive::set<
        KelService,
        boost::intrusive::member_hook<KelService, boost::intrusive::set_member_hook<>, &KelService::indexHook>,
        boost::intrusive::compare<ByName>, boost::intrusive::constant_time_size<false>>;

    // Both must stay alive and keep their names (but for the letters' case) until the service is removed; of one
    // satellite's name, at most one record of the service may be in the index.
    void Add(KelService& service, const KelSatelliteInfo& satellite);
    // Nothing happens when it is not in the index.
    void Remove(KelService& service);

    // The records of `service`, one a provider, never an empty set; null when there are none.
    const Providers* Find(const CStdStr& service) const;
    // The last of them, which who asks for any provider gets.
    const KelService* FindLast(const CStdStr& service) const;

private:
    // The last provider, and where the memory is that an answer takes.
    class Last {
    public:
        explicit Last(const KelService& service);
        const KelService* service() const { return service_; }
        // The service's. Meanwhile everything else is fetched that an answer takes: with many services all of it is far
        // away, and going from one to the next would take as many times the way.
        const char* Name() const;

    private:
        const KelService* service_;
        const KelSatelliteInfo* satellite_;
        const char* text_;  // of the name, when the entry was made; to be fetched, not to be read
    };
    struct Entry {
        std::unique_ptr<Providers> providers;
        mutable Last last;
    };

    static const char* NameOf(const CStdStr& service) { return service.c_str(); }
    static const char* NameOf(const Entry& entry) { return entry.last.Name(); }

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

    // A dense table is nearer, which is worth more than shorter steps in it.
    static constexpr float maxLoad = 0.8F;

    // An open-addressed table of pointers with their hashes: with many services a look-up touches one line of the table
    // and then the record itself, which was allocated together with the satellite. Chains of nodes would lead through
    // other satellites' memory, and what a look-up costs with many is the distant memory that it touches.
    tsl::robin_set<Entry, NameHash, NameEqual, std::allocator<Entry>, true> entries_;
};
