// SelfCheck: what a start of the directory would meet, found out without starting it: settings, folders, files, the log
// and the port. Nothing is made or changed, and no thread is started. It takes up to a few seconds when somebody holds
// the port and does not answer.
#pragma once

#include "foundation/StdString.h"

#include <cstdint>
#include <vector>

class SelfCheck {
public:
    SelfCheck();

    // A line for each thing that is wrong.
    const std::vector<CStdStr>& faults() const { return faults_; }
    // A line for each thing that is worth knowing and no fault.
    const std::vector<CStdStr>& notes() const { return notes_; }

private:
    void CheckSettings();
    void CheckData();
    void CheckLogs();
    void CheckPort(const CStdStr& address, uint16_t port);
    void Add(const CStdStr& path, const CStdStr& fault);

    std::vector<CStdStr> faults_;
    std::vector<CStdStr> notes_;
};
