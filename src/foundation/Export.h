// Marks what libkel exports; everything else in the shared library is hidden. KEL_HIDDEN keeps a class inside that
// stands within one that is exported.
#pragma once

#define KEL_API __attribute__((visibility("default")))
#define KEL_HIDDEN __attribute__((visibility("hidden")))
