// CURVE keys: 32 raw bytes, Z85 text as libzmq makes it, and the 64 upper-case hexadecimal digits
// of the plug-in's settings and of key files.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace zmqwriter {

using CurveKey = std::array<std::uint8_t, 32>;

struct CurveKeyPair {
  CurveKey public_key;
  CurveKey secret_key;
};

/// A new pair. Throws std::runtime_error when libzmq was built without CURVE.
CurveKeyPair make_curve_key_pair();

/// 64 upper-case digits.
std::string to_hex(const CurveKey& key);

/// Reads 64 hexadecimal digits of either case. Returns what is wrong with them, without quoting
/// them; empty for a key. `holder` is what the text was found in, e.g. "this file".
std::string parse_key(std::string_view text, const std::string& holder, CurveKey* key);

/// Reads a key file: 64 hexadecimal digits of either case, white space around them allowed.
/// Throws std::runtime_error that names the file and does not quote its content.
CurveKey read_key_file(const std::string& path);

/// As read_key_file, for a server's secret key. Refuses a file that holds the public one: its name
/// ends with ".public", or server.public in the same folder has the same content.
CurveKey read_secret_key_file(const std::string& path);

/// The public key of the pair. Throws std::runtime_error when libzmq was built without CURVE.
CurveKey public_key_of(const CurveKey& secret_key);

}  // namespace zmqwriter
