// The public keys of the clients that may connect to a collector.
//
// The file has one key per line: 64 hexadecimal digits of either case, as 'zmqwriter keygen' writes
// them. Blank lines are skipped; '#' starts a comment, also after a key. A key may be listed twice.
#pragma once

#include <set>
#include <string>

#include "CurveKey.h"

namespace zmqwriter {

using AllowList = std::set<CurveKey>;

/// Reads a file. Throws std::runtime_error that names the file, and the line if that is not a key:
/// "FILE:LINE: ...". A file without any key is an error, because no client could connect.
AllowList read_allow_list(const std::string& path);

}  // namespace zmqwriter
