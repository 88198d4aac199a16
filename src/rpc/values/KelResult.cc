#include "rpc/values/KelResult.h"

CStdStr KelResultText(int code) {
    switch (code) {
        case KEL_OK:
            return "success";
        case KEL_PING_SILENT:
            return "no answer came in time";
        case KEL_PING_REFUSED:
            return "the connection was refused";
        case KEL_PING_NO_WAY:
            return "the address cannot be reached from here";
        case KEL_PING_HUNG_UP:
            return "the connection was closed instead of an answer";
        case KEL_UNREACHABLE:
            return "the directory or the satellite cannot be reached";
        case KEL_PORT_IN_USE:
            return "the listening port cannot be opened";
        case KEL_ALREADY_REGISTERED:
            return "a living satellite of this name is already registered";
        case KEL_UNKNOWN_METHOD:
            return "the satellite does not publish this method";
        case KEL_METHOD_FAILED:
            return "the method ended with an exception";
        case KEL_NO_ANSWER:
            return "no answer came in time";
        case KEL_NOT_CONNECTED:
            return "not connected to a directory";
        case KEL_TOO_LARGE:
            return "the parameters are too large or of a type that cannot travel";
        case KEL_NO_RESOURCES:
            return "there is no descriptor, memory or place for this now";
        case KEL_LIMIT_REACHED:
            return "the directory keeps no more of that kind for one satellite";
        case KEL_UNREADABLE_PARAMETERS:
            return "the directory cannot read the parameters";
        case KEL_UNKNOWN_NAME:
            return "the directory knows no satellite of this name";
        case KEL_UNKNOWN_SATELLITE:
            return "the directory knows no satellite of this name and id";
        case KEL_NAME_TAKEN:
            return "a living satellite of this name is already registered, or registers right now";
        case KEL_SATELLITE_SILENT:
            return "the satellite does not answer";
        case KEL_WRONG_PARAMETER:
            return "result 0x1: of the directory, that a parameter is of the wrong type";
        case KEL_REMOVED_MEANWHILE:
            return "result 0x1e: of the directory, that it has removed the satellite meanwhile";
        default:
            break;
    }
    CStdStr text;
    text.Format("result 0x%x", static_cast<unsigned>(code));
    return text;
}
