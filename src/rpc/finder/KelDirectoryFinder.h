// KelDirectoryFinder: finds directories on the networks of this machine, for a satellite or a tool that was not told an
// address. Connect("auto", name) uses one; use your own to list directories or to follow them as they come and go.
//
//     KelDirectoryFinder finder;
//     for (int i = 0; i < 4; ++i) {
//         if (!finder.Search()) std::puts(finder.GetProblem().c_str());
//         finder.Wait(1000);  // back at once when there is news
//     }
//     for (const KelFoundDirectory& found : finder.GetDirectories()) ...
//
// A directory answers a search within moments, tells everyone of itself every 20 seconds and when its users change, and
// says farewell when it stops; one that dies in silence stays in the list, unless it has come back under other
// addresses. What is heard is what somebody on the network says: anybody there can claim to be a directory.
//
// All finders and directories of a machine share one UDP port, and an answer sent to this machine reaches one of them.
// A second search about a second after the first has the directory answer to everyone instead, two to three seconds
// after its first answer.
//
// Threads: an object belongs to one thread at a time.
#pragma once

#include "foundation/Export.h"
#include "foundation/StdString.h"
#include "rpc/finder/KelFoundDirectory.h"

#include <memory>
#include <vector>

class KEL_API KelDirectoryFinder {
public:
    // Opens the port and joins the group of the setting "kel.multicastGroup" on every network of this machine.
    KelDirectoryFinder();
    ~KelDirectoryFinder();
    KelDirectoryFinder(const KelDirectoryFinder&) = delete;
    KelDirectoryFinder& operator=(const KelDirectoryFinder&) = delete;

    // Asks all directories, on every network that this machine has by now, to announce themselves. False when there is
    // no network or no socket to be had.
    bool Search();

    // Takes in what has arrived and waits for more, for at most `milliseconds`. True as soon as something is new: a
    // directory, what one says of itself, or a farewell.
    bool Wait(int milliseconds);

    // The directories that were heard and have not said farewell, in the order in which they were first heard; at most
    // 64, further ones are left out.
    std::vector<KelFoundDirectory> GetDirectories() const;

    // Why the latest Search failed, a sentence for people; empty when it did not.
    CStdStr GetProblem() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};
