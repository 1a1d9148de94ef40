/*
 * The kernel contract as this library defines it: the same header that the
 * operators compile against, with its symbols exported.
 */
#ifndef REFKERNEL_CONTRACT_H
#define REFKERNEL_CONTRACT_H

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif
#include "kernel/bat.h"
#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#define REFKERNEL_API __attribute__((visibility("default")))

#endif
