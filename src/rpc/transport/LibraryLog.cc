#include "rpc/transport/LibraryLog.h"

#include "foundation/Locks.h"

#include <boost/weak_ptr.hpp>

namespace {

struct LoggerSlot {
    PMutex lock;
    boost::weak_ptr<CBBLog> logger KEL_GUARDED_BY(lock);
};

// Never destroyed: threads of satellites that live to the end of the process may still log.
LoggerSlot& TheLogger() {
    static LoggerSlot* const slot = new LoggerSlot;
    return *slot;
}

}  // namespace

boost::shared_ptr<CBBLog> LibraryLogger() {
    LoggerSlot& slot = TheLogger();
    PMutexHold hold(slot.lock);
    return slot.logger.lock();
}

void SetLibraryLogger(const boost::shared_ptr<CBBLog>& logger) {
    LoggerSlot& slot = TheLogger();
    PMutexHold hold(slot.lock);
    slot.logger = logger;
}
