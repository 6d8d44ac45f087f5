// Build-time facts of the host, as a plug-in may meet them.
#pragma once

#ifndef VERSION
#define VERSION "2.4-228"
#endif

#define DYNAMIC_PLUGIN_SUFFIX ".so"
