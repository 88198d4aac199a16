// The folders of the registry's files.
//
// The data folder is open to every user of the machine, so what stands in it under our names may be somebody else's: a
// link to a folder where root is to write or delete, or a folder whose owner may exchange the files in it. The folders
// are used only when they are folders, not links, that belong to root or to this process's own user, and always through
// the descriptor that was looked at. They are opened anew for each use, since they may be deleted meanwhile.
#pragma once

#include "foundation/SaidOnce.h"
#include "foundation/StdString.h"

#include <sys/types.h>

#include <exception>
#include <stdexcept>
#include <vector>

namespace kel::registry {

constexpr mode_t fileMode = 0775;  // of files and folders, whatever the umask

// A folder cannot be used; the text is its path and why.
class FolderError : public std::runtime_error {
public:
    using runtime_error::runtime_error;
};

// An open folder.
class Folder {
public:
    // A folder that everybody may write to: links lead to it, and it may be anybody's.
    explicit Folder(const CStdStr& path);
    // The folder `name` in another, made when it is missing.
    Folder(const Folder& parent, const char* name);
    ~Folder();
    Folder(Folder&& other) noexcept;
    Folder& operator=(Folder&& other) noexcept;

    int descriptor() const { return descriptor_; }
    const CStdStr& path() const { return path_; }
    CStdStr PathOf(const CStdStr& name) const { return path_ + "/" + name; }

    // Whether the two are one.
    bool IsSame(const Folder& other) const;
    bool IsDeleted() const;

    // The names of everything in it.
    std::vector<CStdStr> Names() const;
    // Replaces `text` by the contents of a regular file: 0, or an error number. No link is followed.
    int Read(const CStdStr& name, CStdStr& text) const;
    // Removes a file: 0, also when there is none, or an error number.
    int Remove(const CStdStr& name) const;
    // Keeps a copy of a damaged file, which is going to be replaced, under a second name: that name, or an empty text
    // when that could not be done. Of several of one name the last is kept.
    CStdStr KeepDamaged(const CStdStr& name) const;

private:
    CStdStr path_;
    int descriptor_ = -1;
};

// The names of the satellite files in a folder. In the order of the registry's map, so that loading them adds each
// record beside the one before: with many, looking for its place would otherwise cost more than reading the file.
std::vector<CStdStr> SatelliteFileNames(const Folder& folder);

// Deletes what a killed process has left behind on its way to a file's place.
void RemoveLeftovers(const Folder& folder);

// The folder of the satellite files, and below it the one of the other two. They throw FolderError.
Folder SatellitesFolder();
Folder RegistrationFolder();

// Whether files are synced: the setting "kel.syncFiles", unless it is 0.
bool SyncsFiles();

// What goes wrong with a kind of file, over and over, and is said once. Any thread.
class Complaint {
public:
    // Takes the result of doing `what` ("write") to a file, an error number or 0. An error is logged unless the last
    // one was as well, and that it went well when that is news. Whether it did.
    bool Take(int error, const char* what, Folder (*folder)(), const CStdStr& name);
    bool IsOpen() const { return fails_.isSo(); }

private:
    SaidOnce fails_;
};

}  // namespace kel::registry
