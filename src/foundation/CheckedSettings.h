// The settings that the product reads, all of them in one list, and what is wrong with those that are stored.
//
// CRegistry reads settings as they come: what cannot be read is as good as missing, and a value of another type is made
// to fit. Whoever runs a program learns of that here. A setting that decides who reaches a program is never guessed at:
// where it may have been narrower than the default, the program is reached from this machine alone.
//
// All functions read the files anew and may be called from any thread.
#pragma once

#include "foundation/StdString.h"

#include <cstdint>
#include <vector>

namespace kel::settings {

enum class Kind { number, port, text, address, group };

struct Setting {
    const char* identifier;  // of the preferences that it is kept in: the file is "<identifier>.plist"
    const char* name;
    Kind kind;
    const char* byDefault;
    const char* meaning;
};

const std::vector<Setting>& All();

// The type of its value, as property lists call it.
const char* TypeOf(const Setting& setting);

// One thing that is wrong with the settings.
struct Finding {
    CStdStr file;     // the path
    CStdStr name;     // the value's; empty when it is the file itself
    CStdStr fault;    // what is wrong with it
    CStdStr instead;  // what counts in its place
    CStdStr Text() const;
};

// Everything that is wrong: files that are there but cannot be read or understood, values of this list with another
// type or out of range, and names that look like one of this list but are not.
std::vector<Finding> Check();

// The files of the settings and whether each is there, for the log.
CStdStr Files();

// The port of the directory; the default where the setting is no port.
uint16_t DirectoryPort();

// The IPv4 address on which endpoints listen. The default is every address of this machine, "0.0.0.0"; "127.0.0.1"
// where the setting is no IPv4 address, or cannot be read because its file is broken.
CStdStr BindAddress();

}  // namespace kel::settings
