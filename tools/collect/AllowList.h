// The public keys of the clients that a collector lets in.
//
// The file has one key per line: 64 hexadecimal digits of either case, the form that 'zmqwriter
// keygen' writes. Blank lines are skipped; '#' starts a comment, also behind a key. A key may be
// listed twice.
#pragma once

#include <set>
#include <string>

#include "CurveKey.h"

namespace zmqwriter {

using AllowList = std::set<CurveKey>;

/// Reads a file. Throws std::runtime_error that names the file and, for what is no key, the line:
/// "FILE:LINE: ...". A file without any key is an error too, as it would let nobody in.
AllowList read_allow_list(const std::string& path);

}  // namespace zmqwriter
