// CFileTools: where the product's things lie on disk, and one file with whole-file reads and writes.
//
// The static functions know the product's folders and do the usual file operations. An object stands for one file by
// its path; it holds no descriptor and looks at the file anew in every call. Nothing here locks: any thread may use any
// object that no other is assigning to, and who shares a file serialises his own accesses, though a reader never sees
// part of a write (see writeBytes).
//
// The fixed folders lie below the prefix YAR_ROOT (see platform/ProcessPaths.h), which is usually empty.
#pragma once

#include "foundation/Export.h"
#include "foundation/StdString.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

class KEL_API CFileTools {
public:
    // The data folder that all processes of the product share, "/Library/Tessaly". Made on first use, with mode 0777;
    // one that exists keeps its mode. Throws std::logic_error, with the reason in errno, when it cannot be made.
    static CStdStr GetYarDataFolder();
    // The folder `name` in the data folder, made likewise.
    static CStdStr GetYarDataSubFolder(const CStdStr& name);
    // The folder of the log files, "/Library/Logs/Tessaly"; it may not exist yet.
    static CStdStr GetLogsDirectory();

    // The folder of the running executable. Throws std::logic_error when the system does not tell.
    static CStdStr GetBinaryDirectory();
    // The same folder, as that of the bundle; empty when the system does not tell.
    static CStdStr GetProcessBundleFolder();
    // The folder of the product's executables: "Contents/MacOS" in the folder that the setting "InstallDir" names,
    // without the setting getYarBinFolderPathMac().
    static CStdStr getYarBinFolderPath();
    // "Contents/MacOS" in the bundle's folder when the launcher is there, else in "/Applications/Yar.app".
    static CStdStr getYarBinFolderPathMac();
    // Whether the product's launcher is in `folder`.
    static bool testYarBinPath(CStdStr folder);

    // Empty when the folder is gone.
    static CStdStr GetCurrentWorkingDirectory();
    // Empty when the user has none.
    static CStdStr GetUserHomeFolder();
    // The value of TMPDIR; without it "/var/tmp/" where that is a folder, else "/tmp".
    static CStdStr getTmpFolder();
    // The path of a new, empty file "/tmp/fileXXXXXX", whose X are replaced so that no other file has the name. The
    // file is the caller's, to be written or removed. Empty when it cannot be made.
    static CStdStr GenerateTempFilePath();
    // The folder that a name stands for: "DESKTOP", "MYDOCUMENTS", "MYMUSIC", "MYPICTURES" and "MYVIDEO" lie in the
    // user's home folder, "MYCOMPUTER" is "/". Any other text is returned as it is.
    static CStdStr resolveSpecialPath(const CStdStr& name);

    // Makes one folder; true when it was made, false when it existed or could not be.
    static bool CreateDirectory(const CStdStr& path);
    // Removes a file, or an empty folder; true, even when there was none or it could not be removed.
    static bool DeleteFile(const CStdStr& path);
    // Copies a file with its mode, over an existing one too; true when that was done.
    static bool CopyFile(const CStdStr& from, const CStdStr& to);
    // Renames a file or folder within its file system, replacing a file at `to`; true when that was done.
    static bool Rename(const CStdStr& from, const CStdStr& to);
    // Copies a folder with all in it (symbolic links as links) to `to`, over existing files; true when that was done. A
    // folder cannot be copied into itself.
    static bool CopyDirectory(const CStdStr& from, const CStdStr& to);

    CFileTools() = default;
    explicit CFileTools(const CStdStr& path);
    // `title` is what a file shows itself under, see getTitle.
    CFileTools(const CStdStr& path, const CStdStr& title);
    virtual ~CFileTools() = default;

    const CStdStr& getPath() const { return path_; }
    // The title given at construction; empty by default.
    const CStdStr& getTitle() const { return title_; }

    // What the file system says of the file; symbolic links are followed. The size is in bytes and the times are in
    // seconds since 1970; all are -1 when there is no such file. Where a file system does not record when a file was
    // created, its last modification counts.
    bool exists() const;
    bool isFolder() const;
    int64_t getFileSize() const;
    int64_t getLastModified() const;
    int64_t getLastAccessed() const;
    int64_t getDateCreated() const;

    // The whole file; empty when it is, or cannot be read. What is not a regular file has no text.
    CStdStr toString() const;
    // Reads the whole file into a buffer that the caller frees with free(). False, with a null buffer and length 0,
    // when it cannot be read.
    bool readToBytes(unsigned char** data, unsigned long* length) const;
    // Likewise the `count` bytes from `offset`, or as many of them as the file has.
    bool getData(unsigned char** data, unsigned long* length, unsigned long offset, unsigned long count) const;

    // Replaces the file's contents, making the file when it is missing. Whoever opens the path, even after this process
    // was killed half-way, finds all of the old contents or all of the new ones, and the mode the file had. False, with
    // the reason in errno, when that failed (no access, disk full): the file is as it was. A file without write
    // permission for its owner is only replaced by who may write it all the same; a symbolic link is replaced itself;
    // what is neither link nor regular file is refused. See FileReplacement.cc for how it is done and what it leaves
    // behind when killed. Nothing is synced: after a power cut the file may be the old one, or damaged.
    //
    // A file made here has the mode `newMode`, whatever the umask; without that parameter 0666 less the umask.
    bool writeBytes(const char* data, unsigned int length);
    bool writeBytes(const unsigned char* data, unsigned int length);
    bool writeBytes(const char* data, unsigned int length, mode_t newMode);

private:
    bool ReplaceContents(const void* data, size_t length, const mode_t* newMode) const;

    CStdStr path_;
    CStdStr title_;
};

// Copies the path of the data folder, with its terminating NUL, into a buffer of `size` bytes. When there is no data
// folder, or its path does not fit, the reason is logged at error level, the text is empty and the result false.
KEL_API bool GetAppDataPath(char* buffer, size_t size);
