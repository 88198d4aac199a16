// LogFolder: the folder of the log files and the files in it, opened so that no other user can lead the lines of a
// program, or its rights, elsewhere.
//
// The folder is open to all users, since programs of several write there. So it is taken only as a folder, not a link
// to one, that belongs to root or to the program's own user; and files in it only as regular files, not links. A file
// of another user is appended to.
//
// Nothing but system calls: safe in a signal handler.
#pragma once

class LogFolder {
public:
    explicit LogFolder(const char* path);
    ~LogFolder();
    LogFolder(const LogFolder&) = delete;
    LogFolder& operator=(const LogFolder&) = delete;

    // Opens a file to append to and to read, and makes it when it is missing. -1, with the reason in errno, when that
    // cannot be done: EPERM for a folder of another user, ELOOP for a link, EINVAL for what is neither file nor folder.
    int OpenFile(const char* name, bool& isNew) const;
    // Renames a file, over another one too.
    bool Rename(const char* from, const char* to) const;

private:
    int fd_;
    int problem_ = 0;  // why there is none, as errno
};
