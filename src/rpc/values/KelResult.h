// What the calls of libkel return.
#pragma once

#include "foundation/Export.h"
#include "foundation/StdString.h"

// Results of the library's own. A published method's own result, and what the directory answers, are passed on as they
// are.
constexpr int KEL_OK = 0;
constexpr int KEL_UNREACHABLE = 0x20001;         // the directory or the satellite cannot be reached, or hung up
constexpr int KEL_PORT_IN_USE = 0x20002;         // the port cannot be listened on; the log says why
constexpr int KEL_ALREADY_REGISTERED = 0x20003;  // a living satellite holds the name
constexpr int KEL_UNKNOWN_METHOD = 0x20004;      // the endpoint does not publish the method (thrown as a KelException)
constexpr int KEL_METHOD_FAILED = 0x20005;       // the method ended with an exception of another kind (thrown likewise)
constexpr int KEL_NO_ANSWER = 0x20006;           // the satellite did not answer in time
constexpr int KEL_NOT_CONNECTED = 0x20007;       // this satellite is not connected to a directory
constexpr int KEL_TOO_LARGE = 0x20008;           // the parameters do not fit a message (16 MiB, 32 deep)
constexpr int KEL_NO_RESOURCES = 0x20009;        // no descriptor or memory to ask with, or no place at the directory
constexpr int KEL_LIMIT_REACHED = 0x2000a;       // the directory keeps no more of that kind for one satellite

// Why a ping was not answered.
constexpr int KEL_PING_SILENT = -1;   // in time: nothing came back, or a connection and no answer on it
constexpr int KEL_PING_REFUSED = -2;  // nobody listens at the port, or something on the way turns callers away
constexpr int KEL_PING_NO_WAY = -3;   // to the address: no route, no such host, or not connected to ask
constexpr int KEL_PING_HUNG_UP = -4;  // there was a connection, and it was closed

// A sentence for a result of the library or of the directory; "result 0x..." for any other.
KEL_API CStdStr KelResultText(int code);
