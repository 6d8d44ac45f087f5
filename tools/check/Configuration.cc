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

/// A setting of text; either name may be missing.
struct TextSetting {
  const char* key;
  const char* constant;
  const char* shipped;  // the constant's value in the plug-in's scripts as they come
};

const TextSetting kConnection[] = {
    {kServer, "zmq_primary_server", ""},
    {kPublicKey, "zmq_public_key", ""},
    {kSecondaryServers, "zmq_secondary_server", ""},
};
const TextSetting kScriptsOnly[] = {
    {"", "zmq_agent_id", ""},
    {"", "set_separator", ","},
    {"", "empty_field", "(empty)"},
    {"", "unset_field", "-"},
};

struct NumberSetting {
  const char* key;
  int default_value;
};

const NumberSetting kNumbers[] = {
    {kDiskRelative, kDefaultDiskRelative},
    {kDiskAbsolute, kDefaultDiskAbsolute},
    {kChunkSize, kDefaultChunkSize},
};

Setting text_setting(const PluginOptions& options, const ConstantValues& constants,
                     const TextSetting& what) {
  const SettingOrigin origin(options, what.key, what.constant);
  const std::string& in_scripts = constants.at(what.constant);
  Setting setting = {what.key, std::string("LogZMQ::") + what.constant, origin.place, origin.name,
                     origin.value};
  if (setting.place == SettingOrigin::kSettingsFile)
    return setting;
  // For the host an empty value changes nothing. It also undoes escapes.
  setting.value = in_scripts;
  const bool changed = setting.place == SettingOrigin::kScriptConstant && !origin.value.empty();
  setting.place = changed || in_scripts != what.shipped ? SettingOrigin::kScriptConstant
                                                        : SettingOrigin::kNowhere;
  setting.name = setting.constant;
  return setting;
}

Setting number_setting(const PluginOptions& options, const NumberSetting& what, int value) {
  const SettingOrigin origin(options, what.key, "");
  // A text that is not a number counts as not set, but is named.
  const auto place = number_in<int>(origin.value) ? origin.place : SettingOrigin::kNowhere;
  return {what.key, "", place, origin.name, std::to_string(value)};
}

std::string quoted(const std::string& text) {
  return "'" + text + "'";
}

// -- Names of settings ----------------------------------------------------------------------------

/// Those that a line of the settings file may mean; with an empty key, those of the scripts only.
std::vector<TextSetting> known_settings() {
  std::vector<TextSetting> known(std::begin(kConnection), std::end(kConnection));
  for (const NumberSetting& setting : kNumbers)
    known.push_back({setting.key, "", ""});
  known.insert(known.end(), std::begin(kScriptsOnly), std::end(kScriptsOnly));
  return known;
}

/// What to write in place of a name that is none.
std::string known_keys() {
  std::string keys;
  for (const TextSetting& setting : known_settings())
    keys += *setting.key ? (keys.empty() ? "" : ", ") + std::string(setting.key) : "";
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

/// The setting that a key means which is written as in a script, with or without "redef".
std::optional<TextSetting> meant_by_script_name(const std::string& key) {
  std::string name = lower(key);
  if (begins_with(name, "redef "))
    name.erase(0, std::strlen("redef "));
  const bool in_module = begins_with(name, "logzmq::");
  if (in_module)
    name.erase(0, std::strlen("logzmq::"));
  for (const TextSetting& setting : known_settings()) {
    if ((name == setting.constant && (in_module || begins_with(name, "zmq_"))) ||
        (in_module && (name == setting.key || "zmq." + name == setting.key)))
      return setting;
  }
  return std::nullopt;
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
  const std::vector<TextSetting> known = known_settings();
  const bool marked = begins_with(key, kByteOrderMark);
  const std::string name = marked ? key.substr(kByteOrderMark.size()) : key;
  const std::string what = file + ": " + quoted(name);
  if (std::any_of(known.begin(), known.end(),
                  [&](const TextSetting& setting) { return key == setting.key; })) {
    const std::string note = note_in(settings->getStringVal(key.c_str(), ""));
    if (!note.empty())
      add_warning(findings, "setting-note",
                  file + ": " + key + ": " + quoted(note) +
                      " is a part of the value: the settings file has no notes behind values",
                  "write it in a line of its own that begins with '#'");
  } else if (const auto meant = meant_by_script_name(name)) {
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

/// A problem of an endpoint; its text follows the endpoint.
using Problem = std::optional<Finding>;

Finding endpoint_error(const std::string& id, const std::string& text, const std::string& remedy) {
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
    return endpoint_error(
        "endpoint-no-port",
        "gets no port, because the plug-in takes a colon in the brackets for one; "
        "it is also an IPv6 address, and the plug-in connects by IPv4 only",
        "give a port and the server's IPv4 address or a name that has one");
  if (is_ipv6(target) || is_ipv6(host))
    return endpoint_error("endpoint-ipv6",
                          "is an IPv6 address, but the plug-in connects by IPv4 only",
                          "give the server's IPv4 address or a name that has one");
  if (host.empty() || host[0] == ':')
    return endpoint_error("endpoint-no-host", "names no host", kNameServer);
  if (!consists_of(host, "", ".-_"))
    return endpoint_error("endpoint-characters",
                          "has " + quoted(host) + " as its host, which is not a host name",
                          kNameServer);
  const std::string source = semicolon == std::string::npos ? "x" : rest.substr(0, semicolon);
  if (!consists_of(source, "[:", "[:].-_%*;"))
    return endpoint_error("endpoint-characters",
                          "has " + quoted(source) + " as its source address, which is not one",
                          kNameServer);
  if (!is_port(port))
    return endpoint_error("endpoint-port", "has " + quoted(port) + " as its port",
                          "give a port from 1 to 65535");
  return std::nullopt;
}

Problem ipc_problem(const std::string& path, bool port_appended) {
  constexpr std::size_t kLongest = sizeof(sockaddr_un::sun_path) - 1;
  if (path.size() > kLongest)
    return endpoint_error("endpoint-path",
                          "has a path of " + std::to_string(path.size()) +
                              " bytes, and the system allows " + std::to_string(kLongest),
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
    return endpoint_error("endpoint-characters",
                          "has blanks, quotation marks or other characters that libzmq refuses",
                          endpoint.role == kPrimary
                              ? "remove them; there can be one primary server only"
                              : "remove them; servers of the list are separated by commas");
  if (scheme == "tcp")
    return tcp_problem(rest);
  return endpoint_error("endpoint-scheme",
                        "has a scheme that is not supported: use tcp:// or ipc://", kNameServer);
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
  int numbers[3];
  for (const TextSetting& what : kConnection)
    settings_.push_back(text_setting(options, constants, what));
  for (std::size_t i = 0; i < 3; ++i) {
    const NumberSetting& what = kNumbers[i];
    numbers[i] = settings ? settings->getIntVal(what.key, what.default_value) : what.default_value;
    settings_.push_back(number_setting(options, what, numbers[i]));
  }
  for (const TextSetting& what : kScriptsOnly)
    settings_.push_back(text_setting(options, constants, what));
  relative_ = numbers[0];
  absolute_ = numbers[1];
  chunk_ = numbers[2];

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
  for (const NumberSetting& what : kNumbers) {
    const std::string text = settings ? settings->getStringVal(what.key, "0") : "0";
    if (!number_in<int>(text))
      add_warning(findings, "setting-not-a-number",
                  setting(what.key).name + " = " + quoted(text) +
                      " is not a whole 32-bit number, so its default " +
                      std::to_string(what.default_value) + " is used",
                  "write a whole number, or remove the line");
  }
}

void Configuration::CheckEndpoints(Findings* findings) const {
  const Setting& server = setting(kServer);
  if (server.value.empty())
    add_error(findings, "server-missing",
              (server.place == SettingOrigin::kSettingsFile
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

}  // namespace

ServerKey Configuration::DecodedKey() const {
  return decode_server_key(setting(kPublicKey).value);
}

KeyReport Configuration::CheckKey(bool accepted, Findings* findings) const {
  const Setting& key = setting(kPublicKey);
  const KeyReport report = {key.value, DecodedKey(), accepted};
  const std::string no_delivery = "; no event leaves the plug-in this way";
  if (key.value.empty() && key.place != SettingOrigin::kSettingsFile) {
    add_error(findings, "key-missing",
              "no server key: neither zmq.public_key in " + settings_file_ +
                  " nor LogZMQ::zmq_public_key is set" + no_delivery,
              "write the content of the collector's server.public there" + kUnknownRedefs);
    return report;
  }
  const KeyProblem problem = key_problem(key.value);
  if (!problem)
    return report;

  std::string text = key.name + " " + problem.what;
  const std::size_t length = report.decoded.length;
  const bool right = length == kRawKeyLength && comes_out_right(key.value, report.decoded);
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
  const bool works = right || (length != kRawKeyLength && accepted);
  findings->push_back(
      {problem.id, works ? Severity::kWarning : Severity::kError, text, problem.remedy});
  return report;
}

DiskReport Configuration::CheckDisk(Findings* findings) const {
  DiskReport disk;
  disk.disk_mb = working_disk_mb();
  disk.relative = relative_;
  disk.absolute_mb = absolute_;
  disk.limit_mb = spool_limit_mb(relative_, absolute_, disk.disk_mb);
  disk.limit_bytes = megabytes_to_bytes(disk.limit_mb);
  disk.chunk_mb = chunk_;
  disk.chunk_bytes = megabytes_to_bytes(chunk_);

  const auto wraps = [](int megabytes, int bytes) {
    return static_cast<std::int64_t>(megabytes) * 1048576 != bytes;
  };
  const auto wrapped_size = [](int megabytes, int bytes) {
    return std::to_string(megabytes) + " MB becomes " + std::to_string(bytes) +
           " bytes, because the plug-in computes with 32 bits, and 2048 MB and more wrap around";
  };
  const auto size = [](int megabytes, int bytes) {
    return std::to_string(megabytes) + " MB, " + std::to_string(bytes) + " bytes";
  };
  const char* const new_files =
      disk.chunk_bytes <= 0 ? "; every spooled event would begin a new file" : "";
  if (disk.disk_mb <= 0)
    add_warning(findings, "disk-not-measured",
                "the size of the working directory's disk cannot be read: the plug-in will take it "
                "for 0 MB",
                "start the host, and this check, in a folder that it may read");
  if (disk.limit_mb < 0 || (disk.limit_mb == 0 && disk.disk_mb > 0))
    add_warning(findings, "disk-limit-not-positive",
                "the spool's limit is " + size(disk.limit_mb, disk.limit_bytes),
                "set disk.usage.relative and disk.usage.absolute to more than 0");
  else if (wraps(disk.limit_mb, disk.limit_bytes))
    add_warning(findings, "disk-limit-wraps",
                "the spool's limit of " + wrapped_size(disk.limit_mb, disk.limit_bytes),
                "set disk.usage.absolute to 2047 at most");
  if (chunk_ <= 0)
    add_warning(findings, "chunk-size-not-positive",
                "pqueue.chunk.size is " + size(chunk_, disk.chunk_bytes) + new_files,
                "set it to 1 at least; 10 is the default");
  else if (wraps(chunk_, disk.chunk_bytes))
    add_warning(findings, "chunk-size-wraps",
                "pqueue.chunk.size of " + wrapped_size(chunk_, disk.chunk_bytes) + new_files,
                "set it to 2047 at most; 10 is the default");
  return disk;
}

}  // namespace zmqwriter
