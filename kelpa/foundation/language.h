// Says in one line what compilers of older language versions would say in a page.
#pragma once

#if __cplusplus < 202002L
#error "Kelpa needs C++20: compile with -std=c++20 or later (in CMake, link Kelpa::particles)"
#include "a compiler for C++20" // is not there: ends the compilation here
#endif
