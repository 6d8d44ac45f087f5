// How the C library declares functions that a test defines in its place: LIBC_NOEXCEPT.
#pragma once

#include <sys/types.h>

#ifdef __THROW
#define LIBC_NOEXCEPT __THROW
#else
#define LIBC_NOEXCEPT
#endif
