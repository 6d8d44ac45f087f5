// Build-time facts of the host, as a plug-in may meet them.
#pragma once

#ifndef VERSION
#define VERSION "2.4-228"
#endif

#define DYNAMIC_PLUGIN_SUFFIX ".so"

#if defined(__linux__)
#define HAVE_LINUX 1
#define STANDIN_OS "linux"
#elif defined(__APPLE__)
#define HAVE_DARWIN 1
#define STANDIN_OS "darwin"
#else
#define STANDIN_OS "unknown"
#endif

#if defined(__x86_64__)
#define STANDIN_CPU "x86_64"
#elif defined(__aarch64__) && defined(__APPLE__)
#define STANDIN_CPU "arm64"
#elif defined(__aarch64__)
#define STANDIN_CPU "aarch64"
#else
#define STANDIN_CPU "unknown"
#endif

#define HOST_ARCHITECTURE STANDIN_OS "-" STANDIN_CPU

#define SIZEOF_VOID_P __SIZEOF_POINTER__
#define SIZEOF_LONG_LONG __SIZEOF_LONG_LONG__
#define RETSIGTYPE void
#define RETSIGVAL
