// FileReplacement: a file on its way to taking another's place, in steps, so that many can be brought to the disk
// together. CFileTools::writeBytes takes the steps for one file; FileReplacement.cc opens with how it works.
#pragma once

#include "foundation/StdString.h"

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <vector>

// For one thread at a time. Results are 0 or an error number. Until PutInPlace has succeeded the target is as it was.
class FileReplacement {
public:
    // Of the file `name` in the open folder `folder`, which stays open meanwhile; with AT_FDCWD the name is a path.
    FileReplacement(int folder, const CStdStr& name);
    // What was not put in place is removed.
    ~FileReplacement();
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    // Writes the contents beside the target. Where there is no target yet, the file will have the mode `newMode`,
    // whatever the umask, or 0666 less the umask; else that of the target.
    int Write(const void* data, size_t length, std::optional<mode_t> newMode);
    int PutInPlace();

private:
    friend int SyncContents(const std::vector<const FileReplacement*>& files);

    int OpenTemporary(mode_t mode);

    const int folder_;
    const CStdStr name_;
    CStdStr temporary_;  // empty when there is none
    int file_ = -1;
};

// Returns when the contents that these have written, on one file system, would survive a power cut: 0, or an error
// number.
int SyncContents(const std::vector<const FileReplacement*>& files);

// Likewise for the entries of open folders of one file system, in this order.
int SyncFolders(const std::vector<int>& folders);

// Replaces `text` by what is in the file `name` of an open folder, following no link: 0, or an error number.
int ReadFile(int folder, const CStdStr& name, CStdStr& text);

// Whether a file's name is that of one which a killed process has left behind on its way.
bool IsLeftover(const CStdStr& name);
