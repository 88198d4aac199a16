// Which of many sockets can be read or written.
#pragma once

#include <cstdint>

namespace kel::platform {

// Tells of changes: a socket is named when it becomes readable or writable, when more arrives, and when it is watched
// and is so already, but not again for what it was named for before. So whoever hears of one reads or writes until the
// system has no more for it. Any thread; of several that wait one hears of each change.
class SocketEvents {
public:
    struct Event {
        uint64_t tag;
        bool readable;  // bytes, a connection to accept, or the end
        bool writable;
        bool ended;  // the peer sends no more, or the connection is broken
    };

    // std::system_error when the system has no descriptor for it.
    SocketEvents();
    ~SocketEvents();
    SocketEvents(const SocketEvents&) = delete;
    SocketEvents& operator=(const SocketEvents&) = delete;

    enum class For { end, reading, readingAndWriting };  // each includes those before it
    // Tells of `socket` under `tag` from now on; returns errno, or 0. A socket that is closed is forgotten by itself.
    int Watch(int socket, uint64_t tag, For what);
    // Takes the place of an earlier Watch.
    int Change(int socket, uint64_t tag, For what);
    void Forget(int socket);

    // Waits for at most `milliseconds` (-1: without end) and fills in up to `count` events; returns how many. 0 also
    // after Wake and when a signal came.
    int Wait(Event* events, int count, int milliseconds);
    // Has one thread that waits, or the next that will, return from it.
    void Wake();

private:
    int poll_ = -1;
    int wake_ = -1;
};

}  // namespace kel::platform
