// A round
//
// Syncing takes a disk milliseconds, for one file as for thirty. So threads that want something written at the same
// time take part in one round: each writes its new text beside its file, without syncing it, and queues. One of them
// leads: it takes all who wait by then, and for all together
//
//   1. writes the first file's text beside it, if one of them wants that,
//   2. syncs all these texts: no name ever leads to a file that the disk does not have,
//   3. renames the first file into its place and then, unless that failed, all others, and deletes what is to go,
//   4. syncs the folders, that of the first file first,
//
// and then wakes them. Each holds a descriptor meanwhile, and descriptors may be short, so there are places for so many
// only, and the others come when one is free; a folder is open once for all of them. Who comes meanwhile waits for the
// next round, which one of them leads. After a round of several the next leader waits a moment for as many to come:
// those who were answered are about to ask again.
#include "registry/GroupCommit.h"

#include "foundation/FileReplacement.h"
#include "rpc/satellite/RunningCall.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <thread>
#include <utility>

namespace kel::registry {
namespace {

constexpr auto gatherPause = std::chrono::microseconds(100);
constexpr int gatherPauses = 8;
constexpr size_t maxPlaces = 30;  // with two folders as many descriptors as libkel keeps free of connections

}  // namespace

// A change whose text, if it has one, lies beside its file.
struct GroupCommit::Staged {
    void Stage(const FileChange& change, FolderPtr opened) {
        folder = std::move(opened);
        if (!change.text) {
            name = change.name;
            return;
        }
        replacement.emplace(folder->descriptor(), change.name);
        error = replacement->Write(change.text->data(), change.text->size(), fileMode);
    }

    // Does what was asked for.
    void Finish() {
        if (error != 0 || !folder) return;
        error = replacement ? replacement->PutInPlace() : folder->Remove(name);
    }

    bool HasText() const { return replacement && error == 0; }

    FolderPtr folder;  // outlives the replacement
    std::optional<FileReplacement> replacement;
    CStdStr name;  // of what is to go
    int error = 0;
};

struct GroupCommit::Member {
    Staged staged;
    bool wantsFirst = false;
    bool isDone = false;
    int firstError = 0;
    CStdStr problem;
};

// A place among those who take part, while it lives.
class GroupCommit::Place {
public:
    explicit Place(GroupCommit& commit) : commit_(commit) { commit_.TakePlace(); }
    ~Place() {
        PMutexHold hold(commit_.lock_);
        --commit_.places_;
        commit_.lock_.broadcast();
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

private:
    GroupCommit& commit_;
};

GroupCommit::GroupCommit(bool syncs, std::function<FileChange()> first) : syncs_(syncs), first_(std::move(first)) {}

GroupCommit::~GroupCommit() = default;

GroupCommit::Outcome GroupCommit::WriteAfterFirst(const FileChange* change) {
    const Place place(*this);
    Member member;
    member.wantsFirst = true;
    if (change) Stage(*change, member.staged);
    Commit(member);
    return {member.firstError, member.firstError != 0 ? member.firstError : member.staged.error, member.problem};
}

int GroupCommit::Write(const FileChange& change) {
    const Place place(*this);
    Member member;
    Stage(change, member.staged);
    Commit(member);
    return member.staged.error;
}

void GroupCommit::TakePlace() {
    RunningCall::AboutToBlock();
    PMutexHold hold(lock_);
    while (places_ >= maxPlaces) lock_.wait();
    ++places_;
}

GroupCommit::FolderPtr GroupCommit::Open(Folder (*folder)()) {
    PMutexHold hold(foldersLock_);
    std::weak_ptr<const Folder>& known = folders_[folder];
    FolderPtr open = known.lock();
    if (!open || open->IsDeleted()) known = open = std::make_shared<const Folder>(folder());
    return open;
}

void GroupCommit::Stage(const FileChange& change, Staged& staged) { staged.Stage(change, Open(change.folder)); }

void GroupCommit::Commit(Member& member) {
    if (!LeadsUnlessServed(member)) return;
    struct AtEnd {
        GroupCommit& commit;
        ~AtEnd() { commit.End(); }
    } const atEnd{*this};
    try {
        RunRound();
    } catch (const std::exception&) {  // no memory
        for (Member* const failed : round_) failed->firstError = failed->staged.error = ENOMEM;
    }
}

bool GroupCommit::LeadsUnlessServed(Member& member) {
    PMutexHold hold(lock_);
    waiting_.push_back(&member);
    while (isRunning_ && !member.isDone) lock_.wait();
    if (member.isDone) return false;
    isRunning_ = true;
    Gather();
    round_.swap(waiting_);
    return true;
}

void GroupCommit::Gather() {
    for (int i = 0; i < gatherPauses && waiting_.size() < expected_; ++i) {
        lock_.unlock();
        std::this_thread::sleep_for(gatherPause);
        lock_.lock();
    }
    expected_ = waiting_.size();
}

void GroupCommit::End() {
    PMutexHold hold(lock_);
    for (Member* const member : round_) member->isDone = true;
    round_.clear();
    isRunning_ = false;
    lock_.broadcast();
}

void GroupCommit::RunRound() {
    Staged first;
    const bool wantsFirst =
        std::any_of(round_.begin(), round_.end(), [](const Member* one) { return one->wantsFirst; });
    if (wantsFirst) StageFirst(first);
    PutInPlace(first, Sync(first));
    if (syncs_) SyncFolders(first);
}

void GroupCommit::StageFirst(Staged& first) {
    try {
        Stage(first_(), first);
    } catch (const FolderError& failure) {
        first.error = EIO;
        for (Member* const member : round_) member->problem = failure.what();
    }
}

// Brings the texts to the disk; the error of the first that could not be.
int GroupCommit::Sync(const Staged& first) const {
    if (!syncs_) return 0;
    std::vector<const FileReplacement*> files;
    files.reserve(round_.size() + 1);
    if (first.HasText()) files.push_back(&*first.replacement);
    for (const Member* const member : round_) {
        if (member->staged.HasText()) files.push_back(&*member->staged.replacement);
    }
    return SyncContents(files);
}

void GroupCommit::PutInPlace(Staged& first, int syncError) {
    if (first.error == 0) first.error = first.HasText() ? syncError : 0;
    first.Finish();
    for (Member* const member : round_) {
        Staged& staged = member->staged;
        if (member->wantsFirst) member->firstError = first.error;
        if (member->firstError != 0) continue;  // what was staged goes with the member
        if (staged.HasText()) staged.error = syncError;
        staged.Finish();
    }
}

void GroupCommit::SyncFolders(const Staged& first) {
    std::vector<int> changed;
    const auto add = [&](const Staged& staged) {
        if (staged.error != 0 || !staged.folder) return;
        const int folder = staged.folder->descriptor();
        if (std::find(changed.begin(), changed.end(), folder) == changed.end()) changed.push_back(folder);
    };
    add(first);
    for (const Member* const member : round_) add(member->staged);
    const int error = ::SyncFolders(changed);
    if (error == 0) return;
    for (Member* const member : round_) {
        if (member->wantsFirst) member->firstError = error;
        if (member->staged.error == 0) member->staged.error = error;
    }
}

}  // namespace kel::registry
