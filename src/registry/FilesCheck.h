// What a start would find wrong with the folders and files of the directory. Reading only: nothing is made, changed or
// removed. Safe in any thread.
#pragma once

#include "foundation/StdString.h"

#include <vector>

namespace kel::registry {

// Why a folder cannot be used, or cannot be made when it is missing: empty when it can. A shared folder may be
// anybody's and a link may lead to it; an own one has to be a folder of root's or of this process's user.
CStdStr SharedFolderFault(const CStdStr& path);
CStdStr OwnFolderFault(const CStdStr& path);

// What keeps the log files from being written in their folder, with its path; empty when nothing does.
CStdStr LogFault(const CStdStr& folder);

// A line for each fault of the folders below the data folder and of the files in them, by the rules by which they are
// loaded.
std::vector<CStdStr> CheckFiles(const CStdStr& dataFolder);

}  // namespace kel::registry
