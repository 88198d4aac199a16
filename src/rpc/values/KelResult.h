// Results: 0, and what libkel and the directory answer when something did not work. KelResultText has a sentence for
// each. The results of a published method are its own and are passed on as they are.
#pragma once

#include "foundation/Export.h"
#include "foundation/StdString.h"

constexpr int KEL_OK = 0;

// The library's own.
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

// The directory's, of its methods.
constexpr int KEL_UNREADABLE_PARAMETERS = 0x40001;  // their number or their types
constexpr int KEL_UNKNOWN_NAME = 0x40002;           // of a satellite, asked for its id or to be right back
constexpr int KEL_UNKNOWN_SATELLITE = 0x4000a;      // unknown name, or known under another id, or no parameter at all
constexpr int KEL_NAME_TAKEN = 0x40010;             // by a living satellite, or somebody registers under it right now
constexpr int KEL_SATELLITE_SILENT = 0x40017;       // in the directory's log: a satellite did not answer it
constexpr int KEL_WRONG_PARAMETER = 1;              // of SetBeRightBackTimer; also the code of what VUtil throws
constexpr int KEL_REMOVED_MEANWHILE = 30;           // the satellite, while it was told of its services
constexpr int KEL_NO_ENDPOINT = -1;                 // the directory is about to start or to stop

// Why a ping was not answered.
constexpr int KEL_PING_SILENT = -1;   // in time: nothing came back, or a connection and no answer on it
constexpr int KEL_PING_REFUSED = -2;  // nobody listens at the port, or something on the way turns callers away
constexpr int KEL_PING_NO_WAY = -3;   // to the address: no route, or no such host
constexpr int KEL_PING_HUNG_UP = -4;  // there was a connection, and it was closed

// A sentence for each of these; "result 0x..." for any other. For -1 it is that of a ping.
KEL_API CStdStr KelResultText(int code);
