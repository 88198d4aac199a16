// The exceptions of libkel. One that leaves a published method travels to the caller as its code and text.
#pragma once

#include "foundation/Export.h"

#include <cstring>
#include <exception>

// A failure with a code and a message of at most 255 characters (longer text is cut). what() is that of std::exception.
class KEL_API KelException : public std::exception {
public:
    static constexpr size_t messageCapacity = 256;

    KelException(const char* message, int code) noexcept : code_(code) {
        std::strncpy(message_, message ? message : "", messageCapacity - 1);
        message_[messageCapacity - 1] = '\0';
    }
    ~KelException() override;

    const char* GetMessage() const noexcept { return message_; }
    int GetCode() const noexcept { return code_; }

private:
    char message_[messageCapacity];
    int code_;
};

// Misuse of a parameter: wrong type, wrong length, unreadable element. Its code is 1.
class KEL_API KelInvalidParameterException : public KelException {
public:
    explicit KelInvalidParameterException(const char* message) noexcept : KelException(message, 1) {}
    ~KelInvalidParameterException() override;
};
