#include "rpc/satellite/MethodTable.h"

#include <algorithm>
#include <utility>

namespace kel {

Method::Method(CStdStr methodName, CStdStr methodDescription, std::unique_ptr<KelSatelliteDelegateGeneric> delegate)
    : name(std::move(methodName)),
      description(std::move(methodDescription)),
      delegate_(std::move(delegate)),
      withSocket_(dynamic_cast<KelSatelliteDelegateGenericEx*>(delegate_.get())) {}

int Method::Invoke(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out) const {
    return withSocket_ ? withSocket_->Invoke(socket, caller, in, out) : delegate_->Invoke(caller, in, out);
}

void MethodTable::Put(const MethodPtr& method) {
    MethodPtr replaced;  // its delegate goes after the lock
    PWriteHold hold(lock_);
    inOrder_.reserve(inOrder_.size() + 1);  // so that nothing fails once the map has it
    const auto [entry, isNew] = byName_.try_emplace(method->name, method);
    if (isNew) return inOrder_.push_back(method);
    replaced = std::exchange(entry->second, method);
    std::replace(inOrder_.begin(), inOrder_.end(), replaced, method);
}

bool MethodTable::Remove(const std::string& name) {
    MethodPtr removed;  // its delegate goes after the lock
    PWriteHold hold(lock_);
    const auto found = byName_.find(name);
    if (found == byName_.end()) return false;
    removed = found->second;
    inOrder_.erase(std::find(inOrder_.begin(), inOrder_.end(), removed));
    byName_.erase(found);
    return true;
}

MethodPtr MethodTable::Find(std::string_view name) const {
    PReadHold hold(lock_);
    const auto found = byName_.find(name);
    return found == byName_.end() ? nullptr : found->second;
}

Services MethodTable::All() const {
    PReadHold hold(lock_);
    Services all;
    all.reserve(inOrder_.size());
    for (const MethodPtr& method : inOrder_) all.push_back({method->name, method->description});
    return all;
}

}  // namespace kel
