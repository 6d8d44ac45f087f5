#include "CurveKey.h"

#include <cctype>
#include <charconv>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <zmq.h>

#include "Files.h"
#include "Text.h"

namespace zmqwriter {

namespace {

constexpr std::size_t kHexDigits = 64;
constexpr std::size_t kZ85Digits = 40;
constexpr std::size_t kLongestFile = 4096;

/// Whether the server.public beside a file holds the same key. Any other content does not matter.
bool is_public(const CurveKey& key, const std::filesystem::path& file) {
  const std::filesystem::path twin = file.parent_path() / "server.public";
  std::error_code none;
  try {
    return std::filesystem::is_regular_file(twin, none) && read_key_file(twin.string()) == key;
  } catch (const std::runtime_error&) {
    return false;
  }
}

CurveKey from_z85(const char* text) {
  CurveKey key;
  zmq_z85_decode(key.data(), text);
  return key;
}

}  // namespace

CurveKeyPair make_curve_key_pair() {
  char public_text[kZ85Digits + 1];
  char secret_text[kZ85Digits + 1];
  if (zmq_curve_keypair(public_text, secret_text) != 0)
    throw std::runtime_error(std::string("cannot make a key pair: ") + zmq_strerror(zmq_errno()) +
                             " (libzmq must be built with CURVE)");
  return {from_z85(public_text), from_z85(secret_text)};
}

std::string to_hex(const CurveKey& key) {
  return hex_digits(key.data(), key.size());
}

std::string parse_key(std::string_view text, const std::string& holder, CurveKey* key) {
  if (text.size() != kHexDigits)
    return "a key has 64 hexadecimal digits, " + holder + " holds " + std::to_string(text.size()) +
           " characters" + (text.size() == kZ85Digits ? ", which looks like Z85" : "");
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (!std::isxdigit(static_cast<unsigned char>(text[i])))
      return "character " + std::to_string(i + 1) + " of the key is not a hexadecimal digit";
  }
  for (std::size_t i = 0; i < key->size(); ++i)
    std::from_chars(text.data() + 2 * i, text.data() + 2 * i + 2, (*key)[i], 16);
  return "";
}

CurveKey read_key_file(const std::string& path) {
  const char* const blanks = " \t\r\n";
  std::string text = read_small_file(path, kLongestFile);
  text.erase(0, text.find_first_not_of(blanks));
  text.erase(text.find_last_not_of(blanks) + 1);
  CurveKey key;
  const std::string problem = parse_key(text, "this file", &key);
  if (!problem.empty())
    throw std::runtime_error(path + ": " + problem + "; 'zmqwriter keygen' makes key files");
  return key;
}

CurveKey read_secret_key_file(const std::string& path) {
  const CurveKey key = read_key_file(path);
  const std::filesystem::path file(path);
  if (file.extension() == ".public" || is_public(key, file))
    throw std::runtime_error(path +
                             ": this is the public key, for the agents; the secret one is in "
                             "server.secret");
  return key;
}

CurveKey public_key_of(const CurveKey& secret_key) {
  char public_text[kZ85Digits + 1];
  char secret_text[kZ85Digits + 1];
  zmq_z85_encode(secret_text, secret_key.data(), secret_key.size());
  if (zmq_curve_public(public_text, secret_text) != 0)
    throw std::runtime_error(std::string("cannot derive the public key: ") +
                             zmq_strerror(zmq_errno()));
  return from_z85(public_text);
}

}  // namespace zmqwriter
