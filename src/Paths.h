// The two fixed places of the plug-in, decided when it is compiled.
//
// Packagers override them with the CMake cache variables ZMQWRITER_INSTALL_PREFIX and
// ZMQWRITER_SPOOL_FOLDER; tests and the demo are compiled with relative paths, so that each run
// keeps to its own working directory.
#pragma once

#ifndef ZMQWRITER_INSTALL_PREFIX
#define ZMQWRITER_INSTALL_PREFIX "/usr/local/orvik"
#endif

#ifndef ZMQWRITER_SPOOL_FOLDER
#define ZMQWRITER_SPOOL_FOLDER "/usr/local/Cellar/orvik/2.4.1/work"
#endif

namespace paths {

/// Folder that holds the agent-id file; without a trailing slash.
constexpr const char* kInstallPrefix = ZMQWRITER_INSTALL_PREFIX;

/// Folder that holds the chunk files of the spool; without a trailing slash.
constexpr const char* kSpoolFolder = ZMQWRITER_SPOOL_FOLDER;

}  // namespace paths
