// Bringing what was written to the disk.
#pragma once

#include <vector>

namespace kel::platform {

// Returns when the contents of the open files, which lie on one file system, would survive a power cut: 0, or the error
// number of the first that would not. For several files it costs little more than for one. From any thread.
int SyncFiles(const std::vector<int>& files);
// Likewise for the entries of the open folders, in this order.
int SyncFolders(const std::vector<int>& folders);

}  // namespace kel::platform
