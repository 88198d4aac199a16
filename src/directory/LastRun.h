// LastRun: how the run of the directory before this one ended. A run leaves a mark, KelDirectory.running beside the
// log, from when it serves until its orderly end; whoever finds a mark follows a run that had none. Only a directory
// that holds the port makes and removes marks, so one that is started beside it touches nothing.
//
// The main thread's. What goes wrong with the mark is passed over: it is news, not state.
#pragma once

#include "foundation/StdString.h"

class LastRun {
public:
    // How the last run ended, in words; this one is marked as running. `hasRegistry`: whether an earlier run left a
    // registration file.
    CStdStr Begin(bool hasRegistry);
    // This run ends in order. Nothing without Begin, or when another run has made its mark since.
    void End();

private:
    CStdStr path_;
    CStdStr mark_;
};
