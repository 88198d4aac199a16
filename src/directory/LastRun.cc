#include "directory/LastRun.h"

#include "foundation/FileTools.h"
#include "foundation/Log.h"
#include "registry/DataFiles.h"
#include "registry/FilesCheck.h"
#include "registry/XmlTags.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

namespace {

constexpr const char* processTag = "process";
constexpr const char* startedTag = "started";

// The path of the mark; empty when its folder cannot be used.
CStdStr MarkPath() {
    const CStdStr folder = CFileTools::GetLogsDirectory();
    const bool isUsable = CFileTools(folder).isFolder() && kel::registry::OwnFolderFault(folder).empty();
    return isUsable ? CStdStr(folder + "/KelDirectory.running") : CStdStr();
}

CStdStr Mark() {
    CStdStr text("<?xml version='1.0'?>\n<running>\n");
    AppendTag(text, "\t", processTag, std::to_string(getpid()));
    AppendTag(text, "\t", startedTag, CBBLog::getTimeString());
    return CStdStr(text.append("</running>\n"));
}

CStdStr OneValue(const CStdStr& text, const char* tag) {
    std::vector<CStdStr> values;
    return getXMLTagValue(text, tag, values) == 0 && values.size() == 1 ? values.front() : CStdStr("unknown");
}

// A file system that lost power may have kept the file without its contents: that it is there is enough.
CStdStr EndOf(const CFileTools& file, bool hasRegistry) {
    if (!file.exists()) return hasRegistry ? "the last run ended in order" : "no run before this one is known";
    const CStdStr mark = file.toString();
    CStdStr text;
    text.Format(
        "the last run (process %.20s, started %.30s) did not end in order: it crashed, was killed, or the "
        "machine went down",
        OneValue(mark, processTag).c_str(), OneValue(mark, startedTag).c_str());
    return text;
}

// Has what was made or removed in the folder of the mark survive a power cut.
void SyncFolder() {
    const int folder = open(CFileTools::GetLogsDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return;
    fsync(folder);
    close(folder);
}

}  // namespace

CStdStr LastRun::Begin(bool hasRegistry) {
    path_ = MarkPath();
    if (path_.empty()) return "how the last run ended is not known";
    kel::registry::RemoveLeftovers(kel::registry::Folder(CFileTools::GetLogsDirectory()));
    CFileTools file(path_);
    const CStdStr end = EndOf(file, hasRegistry);
    mark_ = Mark();
    if (file.writeBytes(mark_.data(), static_cast<unsigned>(mark_.size()))) SyncFolder();
    return end;
}

void LastRun::End() {
    if (!mark_.empty() && CFileTools(path_).toString() == mark_) {
        CFileTools::DeleteFile(path_);
        SyncFolder();
    }
    mark_.clear();
}
