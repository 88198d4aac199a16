// The methods that an endpoint publishes.
#pragma once

#include "foundation/Locks.h"
#include "foundation/StdString.h"
#include "rpc/satellite/KelDelegate.h"

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kel {

// What others are told of a method.
struct Service {
    CStdStr name;
    CStdStr description;
};
using Services = std::vector<Service>;

// One published method. Shared: a call that runs keeps it, and so its delegate, when it is withdrawn meanwhile.
class Method {
public:
    Method(CStdStr name, CStdStr description, std::unique_ptr<KelSatelliteDelegateGeneric> delegate);

    int Invoke(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out) const;

    const CStdStr name;
    const CStdStr description;

private:
    const std::unique_ptr<KelSatelliteDelegateGeneric> delegate_;
    KelSatelliteDelegateGenericEx* const withSocket_;  // the same object, when it wants the socket
};

using MethodPtr = std::shared_ptr<const Method>;

// Any thread.
class MethodTable {
public:
    // Publishes a method; one of the same name is replaced and keeps its place in the order.
    void Put(const MethodPtr& method);
    // False when there is none.
    bool Remove(const std::string& name);
    // Null when there is none.
    MethodPtr Find(std::string_view name) const;
    // In the order in which they were added. Keeps no method alive: its delegate goes when it is withdrawn.
    Services All() const;

private:
    mutable PReadWriteLock lock_;
    struct NameHash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    std::unordered_map<std::string, MethodPtr, NameHash, std::equal_to<>> byName_ KEL_GUARDED_BY(lock_);
    std::vector<MethodPtr> inOrder_ KEL_GUARDED_BY(lock_);
};

}  // namespace kel
