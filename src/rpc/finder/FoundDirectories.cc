#include "rpc/finder/FoundDirectories.h"

#include <algorithm>
#include <utility>

namespace kel {
namespace {

constexpr size_t maxDirectories = 64;

bool HasAddress(const KelFoundDirectory& directory, const CStdStr& address) {
    return std::find(directory.addresses.begin(), directory.addresses.end(), address) != directory.addresses.end();
}

// Whether the two are announcements of one directory. The id is not enough: directories that were first started in the
// same second have drawn the same one.
bool AreOfOne(const KelFoundDirectory& a, const KelFoundDirectory& b) {
    return a.serverId == b.serverId && a.port == b.port &&
           std::any_of(a.addresses.begin(), a.addresses.end(),
                       [&](const CStdStr& address) { return HasAddress(b, address); });
}

bool IsSame(const KelDirectoryUser& a, const KelDirectoryUser& b) {
    return a.name == b.name && a.value == b.value && a.flag == b.flag;
}

// Whether `a` says what `b` says; in which order its addresses stand depends on the network that they are sent to.
bool IsSame(const KelFoundDirectory& a, const KelFoundDirectory& b) {
    return a.port == b.port && a.addresses.size() == b.addresses.size() &&
           std::is_permutation(a.addresses.begin(), a.addresses.end(), b.addresses.begin()) &&
           a.users.size() == b.users.size() &&
           std::equal(a.users.begin(), a.users.end(), b.users.begin(),
                      [](const KelDirectoryUser& x, const KelDirectoryUser& y) { return IsSame(x, y); });
}

}  // namespace

bool FoundDirectories::Take(KelFoundDirectory& heard, uint32_t now) {
    const auto known = std::find_if(found_.begin(), found_.end(),
                                    [&](const Found& candidate) { return AreOfOne(candidate.directory, heard); });
    if (known == found_.end()) {
        if (found_.size() >= maxDirectories) return false;
        Doubt(heard.serverId);
        found_.push_back({std::move(heard), now, false});
        return true;
    }
    const bool isNew = !IsSame(known->directory, heard);
    *known = {std::move(heard), now, false};
    return isNew;
}

// Only who speaks from a directory's own address can say farewell for it at once.
bool FoundDirectories::TakeFarewell(const KelFoundDirectory& heard, uint32_t now) {
    const size_t before = found_.size();
    std::erase_if(found_, [&](const Found& one) {
        return one.directory.serverId == heard.serverId && HasAddress(one.directory, heard.heardFrom);
    });
    Doubt(heard.serverId);
    return Forget(now) || found_.size() != before;
}

// One of that id has come or gone under other addresses than the rest of them.
void FoundDirectories::Doubt(const CStdStr& serverId) {
    for (Found& one : found_) one.isInDoubt = one.isInDoubt || one.directory.serverId == serverId;
}

bool FoundDirectories::Forget(uint32_t now) {
    return std::erase_if(found_, [now](const Found& one) { return one.isInDoubt && now - one.heardMs > doubtMs; }) > 0;
}

std::vector<KelFoundDirectory> FoundDirectories::All() const {
    std::vector<KelFoundDirectory> all;
    for (const Found& one : found_) all.push_back(one.directory);
    return all;
}

}  // namespace kel
