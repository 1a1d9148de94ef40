/*
 * The kernel contract as this library defines it: the same header that the
 * operators compile against, with its symbols exported.
 */
#ifndef VASK_REFKERNEL_CONTRACT_H
#define VASK_REFKERNEL_CONTRACT_H

#if defined(__cplusplus) && __cplusplus < 202002L
#error "vask/embed.h and the headers beside it need C++20: compile with -std=c++20"
#endif

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif
#include "vask/kernel/bat.h"
#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#define REFKERNEL_API __attribute__((visibility("default")))

#endif
