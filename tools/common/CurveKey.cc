#include "CurveKey.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <zmq.h>

namespace zmqwriter {

namespace {

constexpr std::size_t kHexDigits = 64;
constexpr std::size_t kZ85Digits = 40;
constexpr std::size_t kLongestFile = 4096;

CurveKey from_z85(const char* text) {
  CurveKey key;
  zmq_z85_decode(key.data(), text);
  return key;
}

int digit_value(char c) {
  const char* const digits = "0123456789ABCDEF0123456789abcdef";
  const char* const found = c ? std::strchr(digits, c) : nullptr;
  return found ? static_cast<int>((found - digits) % 16) : -1;
}

std::string read_text(const std::string& path) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored))
    throw std::runtime_error(path + ": this is a folder, not a key file");
  errno = 0;
  std::ifstream in(path, std::ios::binary);
  std::string text(kLongestFile, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in.bad() || (!in && errno != 0))
    throw std::runtime_error(path + ": cannot read the key: " + std::strerror(errno));
  text.resize(static_cast<std::size_t>(in.gcount()));
  const char* const blanks = " \t\r\n";
  text.erase(0, text.find_first_not_of(blanks));
  text.erase(text.find_last_not_of(blanks) + 1);
  return text;
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
  std::string text;
  for (const std::uint8_t byte : key) {
    text += "0123456789ABCDEF"[byte >> 4];
    text += "0123456789ABCDEF"[byte & 15];
  }
  return text;
}

CurveKey read_key_file(const std::string& path) {
  const std::string text = read_text(path);
  if (text.size() != kHexDigits)
    throw std::runtime_error(path + ": a key has 64 hexadecimal digits, this file holds " +
                             std::to_string(text.size()) + " characters" +
                             (text.size() == kZ85Digits ? ", which looks like Z85" : "") +
                             "; 'zmqwriter keygen' makes key files");
  CurveKey key;
  for (std::size_t i = 0; i < key.size(); ++i) {
    const int high = digit_value(text[2 * i]);
    const int low = digit_value(text[2 * i + 1]);
    if (high < 0 || low < 0)
      throw std::runtime_error(path + ": character " + std::to_string(2 * i + (high < 0 ? 1 : 2)) +
                               " of the key is no hexadecimal digit");
    key[i] = static_cast<std::uint8_t>(high * 16 + low);
  }
  return key;
}

}  // namespace zmqwriter
