// Group commit: changes of files are brought to the disk, those of several threads in one round. GroupCommit.cc opens
// with how a round goes.
#pragma once

#include "foundation/Locks.h"
#include "foundation/StdString.h"
#include "registry/DataFiles.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

class FileReplacement;

namespace kel::registry {

// What is to become of a file.
struct FileChange {
    Folder (*folder)();
    CStdStr name;
    std::optional<CStdStr> text;  // nothing: it goes
};

// Any thread. A thread is held up until the disk has what it asked for.
class GroupCommit {
public:
    // `first` makes what every round that is asked for it writes before anything else; empty when there is no such
    // file. It is called at the beginning of the round, so what it writes covers all who take part. Without `syncs` the
    // files are replaced all the same, and survive a kill but no power cut.
    GroupCommit(bool syncs, std::function<FileChange()> first);
    ~GroupCommit();
    GroupCommit(const GroupCommit&) = delete;
    GroupCommit& operator=(const GroupCommit&) = delete;

    // Error numbers, 0 for what is on the disk.
    struct Outcome {
        int first = 0;
        int change = 0;
        CStdStr problem;  // with the folder of the first file; empty when it could be used
    };
    // Has the first file written, and then, unless that fails, `change` (null: only the first). Throws FolderError when
    // the folder of the change cannot be used.
    Outcome WriteAfterFirst(const FileChange* change);
    // Makes the change alone. Throws FolderError.
    int Write(const FileChange& change);

private:
    struct Staged;
    struct Member;
    class Place;
    using Members = std::vector<Member*>;
    using FolderPtr = std::shared_ptr<const Folder>;

    void TakePlace() KEL_EXCLUDES(lock_);
    FolderPtr Open(Folder (*folder)()) KEL_EXCLUDES(foldersLock_);
    void Stage(const FileChange& change, Staged& staged) KEL_EXCLUDES(foldersLock_);
    void Commit(Member& member) KEL_EXCLUDES(lock_);
    bool LeadsUnlessServed(Member& member) KEL_EXCLUDES(lock_);
    void Gather() KEL_REQUIRES(lock_);
    void End() KEL_EXCLUDES(lock_);
    void RunRound();
    void StageFirst(Staged& first);
    int Sync(const Staged& first) const;
    void PutInPlace(Staged& first, int syncError);
    void SyncFolders(const Staged& first);

    const bool syncs_;
    const std::function<FileChange()> first_;

    PCondMutex lock_;  // broadcast at the end of a round, and when a place is free
    Members waiting_ KEL_GUARDED_BY(lock_);
    bool isRunning_ KEL_GUARDED_BY(lock_) = false;
    size_t expected_ KEL_GUARDED_BY(lock_) = 1;  // as many as took part in the last round
    size_t places_ KEL_GUARDED_BY(lock_) = 0;    // that are taken

    PMutex foldersLock_;
    std::map<Folder (*)(), std::weak_ptr<const Folder>> folders_ KEL_GUARDED_BY(foldersLock_);

    Members round_;  // the leader's
};

}  // namespace kel::registry
