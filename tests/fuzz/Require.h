/// What a fuzz target holds its findings to.
#pragma once

#include <cstdio>
#include <cstdlib>

#define REQUIRE(condition)           \
    static_cast<void>((condition) || \
                      (std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), std::abort(), 0))
