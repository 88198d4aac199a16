// Marks what libkel exports; everything else in the shared library is hidden.
#pragma once

#define KEL_API __attribute__((visibility("default")))
