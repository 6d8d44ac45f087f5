#include "Configuration.h"

#include <arpa/inet.h>
#include <sys/un.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

#include "CurveKey.h"
#include "SettingsFile.h"
#include "Text.h"

namespace zmqwriter {

using namespace worker_settings;

namespace {

constexpr std::size_t kRawKeyLength = 32;
constexpr std::size_t kKeyDigits = 2 * kRawKeyLength;
constexpr std::size_t kZ85Digits = 40;

/// A text, or, without a constant, a number. A text without a key is set in scripts only.
struct KnownSetting {
  const char* key;
  const char* constant;
  const char* shipped;  // the constant's value in the plug-in's scripts as they come
  int default_number;
};

constexpr KnownSetting kSettings[] = {
    {kServer, "zmq_primary_server", "", 0},
    {kPublicKey, "zmq_public_key", "", 0},
    {kSecondaryServers, "zmq_secondary_server", "", 0},
    {kDiskRelative, "", "", kDefaultDiskRelative},
    {kDiskAbsolute, "", "", kDefaultDiskAbsolute},
    {kChunkSize, "", "", kDefaultChunkSize},
    {"", "zmq_agent_id", "", 0},
    {"", "set_separator", ",", 0},
    {"", "empty_field", "(empty)", 0},
    {"", "unset_field", "-", 0},
};

bool is_in_file(const KnownSetting& known) {
  return *known.key && settings && settings->has(known.key);
}

Setting text_setting(const PluginOptions& options, const ConstantValues& constants,
                     const KnownSetting& known) {
  const std::string constant = std::string("LogZMQ::") + known.constant;
  if (is_in_file(known))
    return {known.key, constant, Setting::kSettingsFile, options.settings_file + ": " + known.key,
            settings->getStringVal(known.key, "")};
  const std::string& value = constants.at(known.constant);
  // For the host an empty value changes nothing.
  const bool redefined =
      std::any_of(options.redefs.begin(), options.redefs.end(), [&](const std::string& redef) {
        return redef.rfind(constant + "=", 0) == 0 && redef.size() > constant.size() + 1;
      });
  return {known.key, constant,
          redefined || value != known.shipped ? Setting::kScriptConstant : Setting::kNowhere,
          constant, value};
}

/// A text that is not a number counts as not set.
Setting number_setting(const PluginOptions& options, const KnownSetting& known) {
  const std::string text = is_in_file(known) ? settings->getStringVal(known.key, "") : "";
  const int value =
      settings ? settings->getIntVal(known.key, known.default_number) : known.default_number;
  return {known.key, "", number_in<int>(text) ? Setting::kSettingsFile : Setting::kNowhere,
          options.settings_file + ": " + known.key, std::to_string(value)};
}

std::string quoted(const std::string& text) {
  return "'" + text + "'";
}

// -- Names of settings ----------------------------------------------------------------------------

/// What to write in place of a name that is none.
std::string known_keys() {
  std::string keys;
  for (const KnownSetting& known : kSettings)
    keys += *known.key ? (keys.empty() ? "" : ", ") + std::string(known.key) : "";
  return keys;
}

std::string lower(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool begins_with(const std::string& text, const std::string& beginning) {
  return text.rfind(beginning, 0) == 0;
}

/// The file also holds settings of the host and of other plug-ins.
bool looks_like_ours(const std::string& key) {
  const char* const beginnings[] = {"zmq.", "disk.usage.", "pqueue.", "logzmq::"};
  return std::any_of(std::begin(beginnings), std::end(beginnings),
                     [&](const char* beginning) { return begins_with(lower(key), beginning); });
}

/// The setting that a key means which is written as in a script, with or without "redef"; or null.
const KnownSetting* meant_by_script_name(const std::string& key) {
  std::string name = lower(key);
  if (begins_with(name, "redef "))
    name.erase(0, std::strlen("redef "));
  const bool in_module = begins_with(name, "logzmq::");
  if (in_module)
    name.erase(0, std::strlen("logzmq::"));
  for (const KnownSetting& known : kSettings) {
    if ((name == known.constant && (in_module || begins_with(name, "zmq_"))) ||
        (in_module && (name == known.key || "zmq." + name == known.key)))
      return &known;
  }
  return nullptr;
}

/// A note behind a value, which is a part of it; empty if there is none.
std::string note_in(const std::string& value) {
  for (std::size_t i = 0; i < value.size(); ++i) {
    if ((i == 0 || std::isspace(static_cast<unsigned char>(value[i - 1]))) &&
        (value[i] == '#' || value[i] == ';' || value.compare(i, 2, "//") == 0))
      return value.substr(i);
  }
  return "";
}

void check_name(const std::string& file, const std::string& key, Findings* findings) {
  const std::string kByteOrderMark = "\xef\xbb\xbf";
  const bool marked = begins_with(key, kByteOrderMark);
  const std::string name = marked ? key.substr(kByteOrderMark.size()) : key;
  const std::string what = file + ": " + quoted(name);
  if (std::any_of(std::begin(kSettings), std::end(kSettings),
                  [&](const KnownSetting& known) { return key == known.key; })) {
    const std::string note = note_in(settings->getStringVal(key.c_str(), ""));
    if (!note.empty())
      add_warning(findings, "setting-note",
                  file + ": " + key + ": " + quoted(note) +
                      " is a part of the value: the settings file has no notes behind values",
                  "write it in a line of its own that begins with '#'");
  } else if (const KnownSetting* const meant = meant_by_script_name(name)) {
    add_warning(findings, "setting-script-name",
                what + " is not read: script constants are not set in the settings file",
                *meant->key ? "write " + std::string(meant->key) + " in its place"
                            : "redef it in a script of your site, and give --set LogZMQ::" +
                                  std::string(meant->constant) + "=... here");
  } else if (!looks_like_ours(name)) {
    return;
  } else if (marked) {
    add_warning(findings, "setting-unknown",
                what +
                    " is not read: the file begins with a byte order mark, which becomes part "
                    "of the name",
                "save the file without a byte order mark");
  } else {
    add_warning(findings, "setting-unknown", what + " is not a setting of the plug-in",
                "remove the line, or write one of " + known_keys());
  }
}

/// The keys that were loaded, in the order of the file.
std::vector<std::string> keys_in(const std::string& settings_file) {
  std::vector<std::string> keys;
  std::error_code ignored;
  // A pipe gave its content when it was loaded.
  if (!settings || !std::filesystem::is_regular_file(settings_file, ignored))
    return keys;
  std::ifstream in(settings_file, std::ios::binary);
  for (std::string line; std::getline(in, line);) {
    std::string key = line.substr(0, line.find('='));
    trim(key);
    if (settings->has(key.c_str()))
      keys.push_back(key);
  }
  return keys;
}

// -- Endpoints ------------------------------------------------------------------------------------

const char kPrimary[] = "primary server";
const char kNameServer[] = "name the server, e.g. collector.example.net:5555";
const std::string kUnknownRedefs = "; give with --set what site scripts redef";

bool is_never_in_endpoint(unsigned char c) {
  return c <= ' ' || c >= 0x7f || c == '"' || c == '\'';
}

bool is_port(const std::string& text) {
  return number_in<std::uint16_t>(text).value_or(0) > 0;
}

/// Brackets and a zone are allowed.
bool is_ipv6(std::string text) {
  if (text.size() > 2 && text.front() == '[' && text.back() == ']')
    text = text.substr(1, text.size() - 2);
  in6_addr address;
  return inet_pton(AF_INET6, text.substr(0, text.find('%')).c_str(), &address) == 1;
}

/// Whether the text holds only letters, digits and `others`, and starts with a letter, a digit or
/// one of `first`.
bool consists_of(const std::string& text, const std::string& first, const std::string& others) {
  const auto is_plain = [](unsigned char c) { return c < 0x80 && std::isalnum(c); };
  return !text.empty() && (is_plain(text[0]) || first.find(text[0]) != std::string::npos) &&
         std::all_of(text.begin(), text.end(),
                     [&](char c) { return is_plain(c) || others.find(c) != std::string::npos; });
}

/// A problem of an endpoint or of the key; its text follows the name of that.
using Problem = std::optional<Finding>;

Finding error(const std::string& id, const std::string& text, const std::string& remedy) {
  return {id, Severity::kError, text, remedy};
}

/// `rest` follows "tcp://". What zmq_connect refuses is an error here too.
Problem tcp_problem(const std::string& rest) {
  // libzmq allows a source address in front: tcp://192.0.2.1:0;collector:5555.
  const std::size_t semicolon = rest.rfind(';');
  const std::string target = rest.substr(semicolon + 1);
  const std::size_t colon = target.rfind(':');
  const std::string host = target.substr(0, colon);
  const std::string port = colon == std::string::npos ? "" : target.substr(colon + 1);

  if (is_ipv6(target) && target.front() == '[')
    return error("endpoint-no-port",
                 "gets no port, because the plug-in takes a colon in the brackets for one; "
                 "it is also an IPv6 address, and the plug-in connects by IPv4 only",
                 "give a port and the server's IPv4 address or a name that has one");
  if (is_ipv6(target) || is_ipv6(host))
    return error("endpoint-ipv6", "is an IPv6 address, but the plug-in connects by IPv4 only",
                 "give the server's IPv4 address or a name that has one");
  if (host.empty() || host[0] == ':')
    return error("endpoint-no-host", "names no host", kNameServer);
  if (!consists_of(host, "", ".-_"))
    return error("endpoint-characters",
                 "has " + quoted(host) + " as its host, which is not a host name", kNameServer);
  const std::string source = semicolon == std::string::npos ? "x" : rest.substr(0, semicolon);
  if (!consists_of(source, "[:", "[:].-_%*;"))
    return error("endpoint-characters",
                 "has " + quoted(source) + " as its source address, which is not one", kNameServer);
  if (!is_port(port))
    return error("endpoint-port", "has " + quoted(port) + " as its port",
                 "give a port from 1 to 65535");
  return std::nullopt;
}

Problem ipc_problem(const std::string& path, bool port_appended) {
  constexpr std::size_t kLongest = sizeof(sockaddr_un::sun_path) - 1;
  if (path.size() > kLongest)
    return error("endpoint-path",
                 "has a path of " + std::to_string(path.size()) + " bytes, and the system allows " +
                     std::to_string(kLongest),
                 "let the server listen on a shorter path");
  if (port_appended)
    return Finding{"endpoint-port-appended", Severity::kWarning,
                   "ends in ':5555', which the plug-in appends to every endpoint without a port",
                   "write it with ':5555', and let the server listen on that path"};
  return std::nullopt;
}

Problem endpoint_problem(const Endpoint& endpoint) {
  const std::size_t scheme_end = endpoint.uri.find("://");
  const std::string scheme = endpoint.uri.substr(0, scheme_end);
  const std::string rest = endpoint.uri.substr(scheme_end + 3);
  const bool port_appended = endpoint.uri.size() > endpoint.configured.size() &&
                             endpoint.configured.find("://") != std::string::npos;
  if (scheme == "ipc")
    return ipc_problem(rest, port_appended);
  if (std::any_of(endpoint.uri.begin(), endpoint.uri.end(), is_never_in_endpoint))
    return error("endpoint-characters",
                 "has blanks, quotation marks or other characters that libzmq refuses",
                 endpoint.role == kPrimary
                     ? "remove them; there can be one primary server only"
                     : "remove them; servers of the list are separated by commas");
  if (scheme == "tcp")
    return tcp_problem(rest);
  return error("endpoint-scheme", "has a scheme that is not supported: use tcp:// or ipc://",
               kNameServer);
}

}  // namespace

void check_endpoint(const Endpoint& endpoint, Findings* findings) {
  if (Problem problem = endpoint_problem(endpoint)) {
    problem->text = endpoint.role + " " + quoted(endpoint.uri) + " " + problem->text;
    findings->push_back(*problem);
  }
}

void check_names(const std::string& settings_file, Findings* findings) {
  for (const std::string& key : keys_in(settings_file))
    check_name(settings_file, key, findings);
}

// -- Configuration --------------------------------------------------------------------------------

Configuration::Configuration(const PluginOptions& options, const ConstantValues& constants)
    : settings_file_(options.settings_file) {
  for (const KnownSetting& known : kSettings)
    settings_.push_back(*known.constant ? text_setting(options, constants, known)
                                        : number_setting(options, known));
  const std::string& primary = setting(kServer).value;
  endpoints_.push_back({kPrimary, primary, correct_uri(primary)});
  int number = 0;
  for (const std::string& secondary : split_servers(setting(kSecondaryServers).value))
    endpoints_.push_back(
        {"secondary server " + std::to_string(++number), secondary, correct_uri(secondary)});
}

const Setting& Configuration::setting(const std::string& name) const {
  for (const Setting& setting : settings_) {
    if (setting.key == name || setting.constant == "LogZMQ::" + name)
      return setting;
  }
  throw std::logic_error("no such setting: " + name);
}

void Configuration::CheckNumbers(Findings* findings) const {
  for (const KnownSetting& known : kSettings) {
    const std::string text =
        !*known.constant && settings ? settings->getStringVal(known.key, "0") : "0";
    if (!number_in<int>(text))
      add_warning(findings, "setting-not-a-number",
                  setting(known.key).name + " = " + quoted(text) +
                      " is not a whole 32-bit number, so its default " +
                      std::to_string(known.default_number) + " is used",
                  "write a whole number, or remove the line");
  }
}

void Configuration::CheckEndpoints(Findings* findings) const {
  const Setting& server = setting(kServer);
  if (server.value.empty())
    add_error(findings, "server-missing",
              (server.place == Setting::kSettingsFile
                   ? server.name + " is empty"
                   : "no primary server: neither zmq.server in " + settings_file_ +
                         " nor LogZMQ::zmq_primary_server is set") +
                  "; the plug-in will try " + endpoints_[0].uri,
              kNameServer + kUnknownRedefs);
  else
    check_endpoint(endpoints_[0], findings);
  for (auto here = endpoints_.begin() + 1; here != endpoints_.end(); ++here) {
    check_endpoint(*here, findings);
    const auto first = std::find_if(endpoints_.begin(), here, [&](const Endpoint& earlier) {
      return earlier.uri == here->uri;
    });
    if (first != here)
      add_warning(findings, "endpoint-repeated",
                  here->role + " " + quoted(here->uri) + " is the same as the " + first->role,
                  "name another server, or remove it from the list");
  }
}

namespace {

bool is_hexadecimal(const std::string& text) {
  return text.find_first_not_of("0123456789ABCDEFabcdef") == std::string::npos;
}

/// What is wrong with the text of a key; nothing if it has the form that the plug-in reads.
Problem key_problem(const std::string& key) {
  const char kUseTheFile[] = "write the content of the collector's server.public there";
  const std::string length = std::to_string(key.size()) + " characters";
  if (key.empty())
    return error("key-empty", "is empty", kUseTheFile);
  if (key.size() == kKeyDigits && is_hexadecimal(key))
    return key.find_first_of("abcdef") == std::string::npos
               ? Problem()
               : error("key-lower-case", "has lower-case digits, which the plug-in does not read",
                       "write it in upper case");
  if (key.size() == kZ85Digits)
    return error("key-z85", "has " + length + ", which looks like Z85",
                 "write the key's 32 bytes as 64 upper-case hexadecimal digits");
  return error(key.size() < kKeyDigits   ? "key-too-short"
               : key.size() > kKeyDigits ? "key-too-long"
                                         : "key-not-hexadecimal",
               "is not a key of 64 upper-case hexadecimal digits (it has " + length + ")",
               kUseTheFile);
}

/// Whether the first 64 characters are digits that the plug-in decodes correctly. The text has as
/// many.
bool comes_out_right(const std::string& text, const ServerKey& decoded) {
  std::string digits = text.substr(0, kKeyDigits);
  if (!is_hexadecimal(digits))
    return false;
  for (char& c : digits)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const ServerKey meant = decode_server_key(digits);
  return std::equal(meant.bytes, meant.bytes + kRawKeyLength, decoded.bytes);
}

/// A size in MB, with which the plug-in computes as bytes of 32 bits. `effect` follows the finding.
void check_size(const std::string& id, const std::string& what, int megabytes,
                const std::string& effect, const std::string& remedy, Findings* findings) {
  const int bytes = megabytes_to_bytes(megabytes);
  const std::string size = std::to_string(megabytes) + " MB";
  if (megabytes <= 0)
    add_warning(findings, id + "-not-positive",
                what + " is " + size + ", " + std::to_string(bytes) + " bytes" + effect, remedy);
  else if (std::int64_t{megabytes} * 1048576 != bytes)
    add_warning(findings, id + "-wraps",
                what + " of " + size + " becomes " + std::to_string(bytes) +
                    " bytes, because the plug-in computes with 32 bits, and 2048 MB and more wrap "
                    "around" +
                    effect,
                remedy);
}

}  // namespace

ServerKey Configuration::DecodedKey() const {
  return decode_server_key(setting(kPublicKey).value);
}

KeyReport Configuration::CheckKey(bool accepted, Findings* findings) const {
  const Setting& key = setting(kPublicKey);
  const KeyReport report = {key.value, DecodedKey(), accepted};
  const std::string no_delivery = "; no event leaves the plug-in this way";
  if (key.value.empty() && key.place != Setting::kSettingsFile) {
    add_error(findings, "key-missing",
              "no server key: neither zmq.public_key in " + settings_file_ +
                  " nor LogZMQ::zmq_public_key is set" + no_delivery,
              "write the content of the collector's server.public there" + kUnknownRedefs);
    return report;
  }
  Problem problem = key_problem(key.value);
  if (!problem)
    return report;

  const std::size_t length = report.decoded.length;
  const bool right = length == kRawKeyLength && comes_out_right(key.value, report.decoded);
  std::string text = key.name + " " + problem->text;
  if (!is_hexadecimal(key.value))
    text += ", and characters that are not hexadecimal digits";
  if (right)
    text += key.value.size() > kKeyDigits
                ? "; it is decoded from its first 64 digits, and the rest is ignored"
                : "; this key is decoded right all the same, because none of the lower-case digits "
                  "is the second one of a byte";
  else if (length == kRawKeyLength)
    text +=
        "; it is decoded to another key, " + hex_digits(report.decoded.bytes, length) + no_delivery;
  else
    text += "; it is decoded to " + counted(length, "byte") +
            (accepted ? ", which libzmq reads as a key in Z85"
                      : ", which libzmq does not accept as a key" + no_delivery);
  problem->text = text;
  if (right || (length != kRawKeyLength && accepted))
    problem->severity = Severity::kWarning;
  findings->push_back(*problem);
  return report;
}

DiskReport Configuration::CheckDisk(Findings* findings) const {
  const auto number = [this](const char* key) { return std::stoi(setting(key).value); };
  DiskReport disk;
  disk.disk_mb = working_disk_mb();
  disk.relative = number(kDiskRelative);
  disk.absolute_mb = number(kDiskAbsolute);
  disk.limit_mb = spool_limit_mb(disk.relative, disk.absolute_mb, disk.disk_mb);
  disk.limit_bytes = megabytes_to_bytes(disk.limit_mb);
  disk.chunk_mb = number(kChunkSize);
  disk.chunk_bytes = megabytes_to_bytes(disk.chunk_mb);

  if (disk.disk_mb <= 0)
    add_warning(findings, "disk-not-measured",
                "the size of the working directory's disk cannot be read: the plug-in will take it "
                "for 0 MB",
                "start the host, and this check, in a folder that it may read");
  if (disk.limit_mb != 0 || disk.disk_mb > 0)
    check_size("disk-limit", "the spool's limit", disk.limit_mb, "",
               "set disk.usage.relative to more than 0, and disk.usage.absolute to 1 to 2047",
               findings);
  check_size("chunk-size", "pqueue.chunk.size", disk.chunk_mb,
             disk.chunk_bytes <= 0 ? "; every spooled event would begin a new file" : "",
             "set it to 1 to 2047; 10 is the default", findings);
  return disk;
}

}  // namespace zmqwriter
