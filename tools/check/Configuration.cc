#include "Configuration.h"

#include <arpa/inet.h>
#include <sys/un.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>

#include "ServerKeyForm.h"
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
  // The host takes nothing behind the '=' as no change at all, and undoes escapes.
  setting.value = in_scripts;
  const bool changed = setting.place == SettingOrigin::kScriptConstant && !origin.value.empty();
  setting.place = changed || in_scripts != what.shipped ? SettingOrigin::kScriptConstant
                                                        : SettingOrigin::kNowhere;
  setting.name = setting.constant;
  return setting;
}

Setting number_setting(const PluginOptions& options, const NumberSetting& what, int value) {
  const SettingOrigin origin(options, what.key, "");
  // Of what is no number, only the name is left.
  const auto place = number_in<int>(origin.value) ? origin.place : SettingOrigin::kNowhere;
  return {what.key, "", place, origin.name, std::to_string(value)};
}

std::string quoted(const std::string& text) {
  return "'" + text + "'";
}

// -- Names of settings ----------------------------------------------------------------------------

/// Those that the plug-in reads.
std::vector<std::string> known_keys() {
  std::vector<std::string> keys;
  for (const TextSetting& setting : kConnection)
    keys.emplace_back(setting.key);
  for (const NumberSetting& setting : kNumbers)
    keys.emplace_back(setting.key);
  return keys;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words)
    text += (text.empty() ? "" : ", ") + word;
  return text;
}

/// By how it begins; the host and its other plug-ins have their settings in the file, too.
bool is_meant_for_plugin(std::string key) {
  std::transform(key.begin(), key.end(), key.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const char* const beginnings[] = {"zmq.", "disk.usage.", "pqueue."};
  return std::any_of(std::begin(beginnings), std::end(beginnings),
                     [&](const char* beginning) { return key.rfind(beginning, 0) == 0; });
}

/// The keys that were loaded, in the order of the file.
std::vector<std::string> keys_in(const std::string& settings_file) {
  std::vector<std::string> keys;
  std::error_code ignored;
  // Anything else, such as a pipe, gave its content when it was loaded.
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

bool is_odd_character(unsigned char c) {
  return c <= ' ' || c >= 0x7f || c == '"' || c == '\'';
}

bool is_port(const std::string& text) {
  return number_in<std::uint16_t>(text).value_or(0) > 0;
}

/// With or without the brackets and the zone that it may have.
bool is_ipv6(std::string text) {
  if (text.size() > 2 && text.front() == '[' && text.back() == ']')
    text = text.substr(1, text.size() - 2);
  in6_addr address;
  return inet_pton(AF_INET6, text.substr(0, text.find('%')).c_str(), &address) == 1;
}

/// Letters, digits and `others`; one of the first two, or of `first`, at the start.
bool consists_of(const std::string& text, const std::string& first, const std::string& others) {
  const auto is_plain = [](unsigned char c) { return c < 0x80 && std::isalnum(c); };
  return !text.empty() && (is_plain(text[0]) || first.find(text[0]) != std::string::npos) &&
         std::all_of(text.begin(), text.end(),
                     [&](char c) { return is_plain(c) || others.find(c) != std::string::npos; });
}

/// Of "tcp://" endpoints, the rest behind it. Whatever libzmq's zmq_connect refuses is an error
/// here, too.
void check_tcp(const std::string& rest, const std::function<void(Finding)>& add) {
  // libzmq allows an own address in front: tcp://192.0.2.1:0;collector:5555.
  const std::size_t semicolon = rest.rfind(';');
  const std::string target = rest.substr(semicolon + 1);
  const std::size_t colon = target.rfind(':');
  const std::string host = target.substr(0, colon);
  const std::string port = colon == std::string::npos ? "" : target.substr(colon + 1);

  if (is_ipv6(target) && target.front() == '[')
    return add({"endpoint-no-port", Severity::kError,
                "gets no port: the plug-in takes a colon inside the brackets for one; nor could it "
                "be reached, as the plug-in connects by IPv4 only",
                "give a port and the server's IPv4 address or a name that has one"});
  if (is_ipv6(target) || is_ipv6(host))
    return add({"endpoint-ipv6", Severity::kError,
                "is an IPv6 address, but the plug-in connects by IPv4 only",
                "give the server's IPv4 address or a name that has one"});
  if (host.empty() || host[0] == ':')
    return add({"endpoint-no-host", Severity::kError, "names no host", kNameServer});
  if (!consists_of(host, "", ".-_"))
    return add({"endpoint-characters", Severity::kError,
                "has " + quoted(host) + " where its host must be, which is no name of a host",
                kNameServer});
  if (semicolon != std::string::npos && !consists_of(rest.substr(0, semicolon), "[:", "[:].-_%*;"))
    return add({"endpoint-characters", Severity::kError,
                "has " + quoted(rest.substr(0, semicolon)) +
                    " where its own address must be, which is none",
                kNameServer});
  if (!is_port(port))
    return add({"endpoint-port", Severity::kError,
                "has " + quoted(port) + " where its port must be", "give a port from 1 to 65535"});
}

void check_ipc(const std::string& path, bool port_appended,
               const std::function<void(Finding)>& add) {
  constexpr std::size_t kLongest = sizeof(sockaddr_un::sun_path) - 1;
  if (path.size() > kLongest)
    return add({"endpoint-path", Severity::kError,
                "has a path of " + std::to_string(path.size()) + " bytes, and the system takes " +
                    std::to_string(kLongest) + " at most",
                "let the server listen on a shorter path"});
  if (port_appended)
    add({"endpoint-port-appended", Severity::kWarning,
         "has got ':5555' at its end, as it has no port; the plug-in does that whatever the scheme",
         "write it with its ':5555', which the server has to listen on, too"});
}

}  // namespace

void check_endpoint(const Endpoint& endpoint, Findings* findings) {
  const auto add = [&](Finding finding) {
    finding.text = endpoint.role + " " + quoted(endpoint.uri) + " " + finding.text;
    findings->push_back(std::move(finding));
  };
  const std::size_t scheme_end = endpoint.uri.find("://");
  const std::string scheme = endpoint.uri.substr(0, scheme_end);
  const std::string rest = endpoint.uri.substr(scheme_end + 3);
  // The port that was appended, if any: it was not among what was written.
  const bool appended = endpoint.uri.size() > endpoint.configured.size() &&
                        endpoint.configured.find("://") != std::string::npos;

  if (scheme == "ipc")
    return check_ipc(rest, appended, add);
  if (std::any_of(endpoint.uri.begin(), endpoint.uri.end(), is_odd_character)) {
    const bool secondary = endpoint.role != kPrimary;
    return add({"endpoint-characters", Severity::kError,
                "has blanks, quotation marks or other characters that no endpoint has, and libzmq "
                "refuses it",
                secondary ? "take them out; servers of the list are separated by commas"
                          : "take them out; there can be one primary server only"});
  }
  if (scheme == "tcp")
    return check_tcp(rest, add);
  add({"endpoint-scheme", Severity::kError,
       "has a scheme that is not supported: the plug-in's socket can use tcp:// and ipc://",
       kNameServer});
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
    if (!settings || !settings->has(what.key))
      continue;
    const std::string text = settings->getStringVal(what.key, "");
    if (!number_in<int>(text))
      findings->push_back({"setting-not-a-number", Severity::kWarning,
                           setting(what.key).name + " = " + quoted(text) +
                               " is no whole 32-bit number, so its default " +
                               std::to_string(what.default_value) + " is used",
                           "write a whole number, or take the line out"});
  }
}

void Configuration::CheckNames(Findings* findings) const {
  const std::string kByteOrderMark = "\xef\xbb\xbf";
  const std::vector<std::string> known = known_keys();
  for (const std::string& key : keys_in(settings_file_)) {
    const bool marked = key.rfind(kByteOrderMark, 0) == 0;
    const std::string name = marked ? key.substr(kByteOrderMark.size()) : key;
    const bool is_read = std::find(known.begin(), known.end(), key) != known.end();
    if (is_read || !is_meant_for_plugin(name))
      continue;
    const std::string what = settings_file_ + ": " + quoted(name);
    if (marked)
      findings->push_back({"setting-unknown", Severity::kWarning,
                           what + " is not read: the file begins with a byte order mark, which "
                                  "becomes part of that name",
                           "save the file without a byte order mark"});
    else
      findings->push_back({"setting-unknown", Severity::kWarning,
                           what + " is no setting of the plug-in, and is not read",
                           "take the line out, or write one of " + joined(known)});
  }
}

void Configuration::CheckEndpoints(Findings* findings) const {
  const Setting& server = setting(kServer);
  if (server.value.empty()) {
    findings->push_back(
        {"server-missing", Severity::kError,
         server.place == SettingOrigin::kSettingsFile
             ? server.name + " is empty: the plug-in will try " + endpoints_[0].uri
             : "no primary server: " + settings_file_ +
                   " sets no zmq.server, nor is LogZMQ::zmq_primary_server set; the plug-in will "
                   "try " +
                   endpoints_[0].uri,
         std::string(kNameServer) + "; what site scripts redef is unknown here: give it with "
                                    "--set"});
  } else {
    check_endpoint(endpoints_[0], findings);
  }
  for (std::size_t i = 1; i < endpoints_.size(); ++i) {
    check_endpoint(endpoints_[i], findings);
    const auto here = endpoints_.begin() + static_cast<std::ptrdiff_t>(i);
    const auto first = std::find_if(endpoints_.begin(), here, [&](const Endpoint& earlier) {
      return earlier.uri == here->uri;
    });
    if (first != here)
      findings->push_back({"endpoint-repeated", Severity::kWarning,
                           here->role + " '" + here->uri + "' is the " + first->role +
                               " once more: when that one does not answer, this is tried in vain",
                           "name another server, or take it out of the list"});
  }
}

namespace {

bool is_hexadecimal(const std::string& text) {
  return text.find_first_not_of("0123456789ABCDEFabcdef") == std::string::npos;
}

/// Whether the first 64 characters are digits, and decoded as they are meant. The text has as many.
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
  const std::string consequence = "; no event leaves the plug-in this way";
  if (key.value.empty() && key.place != SettingOrigin::kSettingsFile) {
    findings->push_back({"key-missing", Severity::kError,
                         "no server key: " + settings_file_ +
                             " sets no zmq.public_key, nor is LogZMQ::zmq_public_key set" +
                             consequence,
                         "put the content of the collector's server.public there; what site "
                         "scripts redef is unknown here: give it with --set"});
    return report;
  }
  const KeyProblem problem = key_problem(key.value);
  if (!problem)
    return report;

  std::string text = key.name + " " + problem.what;
  Severity severity = Severity::kError;
  const std::size_t length = report.decoded.length;
  if (!is_hexadecimal(key.value))
    text += ", and characters that are no hexadecimal digits";
  if (length == kRawKeyLength && comes_out_right(key.value, report.decoded)) {
    severity = Severity::kWarning;
    text += key.value.size() > kKeyDigits
                ? "; it is decoded from its first 64 digits, and the rest is ignored"
                : "; this one comes out right by luck, as none is the second digit of a byte";
  } else if (length == kRawKeyLength) {
    text +=
        "; it is decoded to another key, " + hex_digits(report.decoded.bytes, length) + consequence;
  } else {
    text += "; it is decoded to " + counted(length, "byte");
    if (accepted) {
      severity = Severity::kWarning;
      text += ", which libzmq reads as a key in Z85";
    } else {
      text += ", which libzmq does not take for a key" + consequence;
    }
  }
  findings->push_back({problem.id, severity, text, problem.remedy});
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
  const auto arithmetic = [](int megabytes, int bytes) {
    return std::to_string(megabytes) + " MB becomes " + std::to_string(bytes) +
           " bytes, as the plug-in computes it with 32 bits, where 2048 MB and more wrap around";
  };
  const auto plainly = [](int megabytes, int bytes) {
    return std::to_string(megabytes) + " MB, " + std::to_string(bytes) + " bytes";
  };
  const char* const new_files =
      disk.chunk_bytes <= 0 ? "; every spooled event would begin a new file" : "";
  if (disk.disk_mb <= 0)
    findings->push_back({"disk-not-measured", Severity::kWarning,
                         "the size of the working directory's disk cannot be found out: the "
                         "plug-in will count it as 0 MB",
                         "start the host, and this check, in a folder that it may read"});
  if (disk.limit_mb < 0 || (disk.limit_mb == 0 && disk.disk_mb > 0))
    findings->push_back(
        {"disk-limit-not-positive", Severity::kWarning,
         "the spool's limit comes out as " + plainly(disk.limit_mb, disk.limit_bytes),
         "set disk.usage.relative and disk.usage.absolute to more than 0"});
  else if (wraps(disk.limit_mb, disk.limit_bytes))
    findings->push_back({"disk-limit-wraps", Severity::kWarning,
                         "the spool's limit of " + arithmetic(disk.limit_mb, disk.limit_bytes),
                         "set disk.usage.absolute to 2047 at most"});
  if (chunk_ <= 0)
    findings->push_back(
        {"chunk-size-not-positive", Severity::kWarning,
         "pqueue.chunk.size comes out as " + plainly(chunk_, disk.chunk_bytes) + new_files,
         "set it to 1 at least; 10 is the default"});
  else if (wraps(chunk_, disk.chunk_bytes))
    findings->push_back({"chunk-size-wraps", Severity::kWarning,
                         "pqueue.chunk.size of " + arithmetic(chunk_, disk.chunk_bytes) + new_files,
                         "set it to 2047 at most; 10 is the default"});
  return disk;
}

}  // namespace zmqwriter
