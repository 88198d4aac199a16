// Where libkel's own lines go: the log given to KelSatellite::setLogger, through the shared-pointer forms of CBBLog.
#pragma once

#include "foundation/Log.h"

// The log, or null when none was given or its owner has let it go. Any thread.
boost::shared_ptr<CBBLog> LibraryLogger();

// It is not kept alive. Any thread.
void SetLibraryLogger(const boost::shared_ptr<CBBLog>& logger);
