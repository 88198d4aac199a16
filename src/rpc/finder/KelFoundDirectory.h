// What a directory says of itself on the network.
#pragma once

#include "foundation/StdString.h"

#include <vector>

// A user that a directory announces, as AddKelUsers gave it.
struct KelDirectoryUser {
    CStdStr name;
    CStdStr value;
    bool flag = false;
};

// A directory as it announced itself last.
struct KelFoundDirectory {
    CStdStr serverId;                // identifies its registry; not always different for two directories
    std::vector<CStdStr> addresses;  // dotted; the one on the network that the announcement was sent to comes first
    unsigned short port = 0;         // of all of them, host order
    std::vector<KelDirectoryUser> users;
    CStdStr heardFrom;  // the dotted address that the announcement came from
    CStdStr heardOn;    // this machine's address on the network it came by; empty when that is not known
};
