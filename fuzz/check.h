// What a target demands of every input.
#pragma once

#include <cstdio>
#include <cstdlib>

// Ends the run as a crash does, so that the input is kept.
#define FUZZ_CHECK(condition)                                                            \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: %s does not hold\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (false)
