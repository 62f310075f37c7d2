// How the files of kernels are compiled for several instruction sets.
#pragma once

// Into every caller: what several versions share takes the instruction set of each.
#define TAVREL_INLINE inline __attribute__((always_inline))
#define TAVREL_AVX2 __attribute__((target("avx2")))
