#include "Configuration.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <functional>
#include <stdexcept>

#include "ServerKeyForm.h"
#include "SettingsFile.h"

using namespace worker_settings;

namespace {

constexpr std::size_t kRawKeyLength = 32;

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
  return {what.key, "", origin.place, origin.name, std::to_string(value)};
}

bool is_whole_number(const std::string& text) {
  int number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  return parsed.ec == std::errc() && parsed.ptr == end;
}

std::string quoted(const std::string& text) {
  return "'" + text + "'";
}

// -- Endpoints ------------------------------------------------------------------------------------

const char kPrimary[] = "primary server";
const char kNameServer[] = "name the server, e.g. collector.example.net:5555";

bool is_odd_character(unsigned char c) {
  return c <= ' ' || c >= 0x7f || c == '"' || c == '\'';
}

bool has_only_digits(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

bool is_port(const std::string& text) {
  return has_only_digits(text) && text.size() <= 9 && std::stoi(text) >= 1 &&
         std::stoi(text) <= 65535;
}

/// Of "tcp://" endpoints, the rest behind it.
void judge_tcp(const std::string& rest, const std::function<void(Finding)>& add) {
  // libzmq allows an own address in front: tcp://192.0.2.1:0;collector:5555.
  const std::string target = rest.substr(rest.rfind(';') + 1);
  const std::size_t colon = target.rfind(':');
  const std::string host = target.substr(0, colon);
  const std::string port = colon == std::string::npos ? "" : target.substr(colon + 1);

  if (target.find('[') != std::string::npos && target.find("]:") == std::string::npos)
    return add({"endpoint-no-port", Severity::kError,
                "gets no port: the plug-in takes a colon inside the brackets for one; nor could it "
                "be reached, as the plug-in connects by IPv4 only",
                "give a port and the server's IPv4 address or a name that has one"});
  if (host.find_first_of("/*@?#,") != std::string::npos)
    return add({"endpoint-characters", Severity::kError, "has characters that no host name has",
                kNameServer});
  if (host.find('[') != std::string::npos ||
      (std::count(host.begin(), host.end(), ':') > 0 && host[0] != ':'))
    return add({"endpoint-ipv6", Severity::kError,
                "is an IPv6 address, but the plug-in connects by IPv4 only",
                "give the server's IPv4 address or a name that has one"});
  if (host.empty() || host[0] == ':')
    return add({"endpoint-no-host", Severity::kError, "names no host", kNameServer});
  if (!is_port(port))
    return add({"endpoint-port", Severity::kError,
                "has " + quoted(port) + " where its port must be", "give a port from 1 to 65535"});
}

}  // namespace

void judge_endpoint(const Endpoint& endpoint, Findings* findings) {
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

  if (scheme == "ipc" || scheme == "ws" || scheme == "wss") {
    if (appended)
      add({"endpoint-port-appended", Severity::kWarning,
           "has got ':5555' at its end, as it has no port; the plug-in does that whatever the "
           "scheme",
           "write it with its ':5555', which the server has to listen on, too"});
    return;
  }
  if (std::any_of(endpoint.uri.begin(), endpoint.uri.end(), is_odd_character)) {
    const bool secondary = endpoint.role != kPrimary;
    return add({"endpoint-characters", Severity::kError,
                "has blanks, quotation marks or other characters that no endpoint has, and libzmq "
                "refuses it",
                secondary ? "take them out; servers of the list are separated by commas"
                          : "take them out; there can be one primary server only"});
  }
  if (scheme == "tcp")
    return judge_tcp(rest, add);
  add({"endpoint-scheme", Severity::kError,
       "has a scheme that leads to no server: the plug-in's socket can use tcp:// and ipc://",
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

void Configuration::JudgeNumbers(Findings* findings) const {
  for (const NumberSetting& what : kNumbers) {
    if (!settings || !settings->has(what.key))
      continue;
    const std::string text = settings->getStringVal(what.key, "");
    if (!is_whole_number(text))
      findings->push_back({"setting-not-a-number", Severity::kWarning,
                           setting(what.key).name + " = " + quoted(text) +
                               " is no whole 32-bit number, so its default " +
                               std::to_string(what.default_value) + " is used",
                           "write a whole number, or take the line out"});
  }
}

void Configuration::JudgeEndpoints(Findings* findings) const {
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
    judge_endpoint(endpoints_[0], findings);
  }
  for (std::size_t i = 1; i < endpoints_.size(); ++i) {
    judge_endpoint(endpoints_[i], findings);
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

ServerKey Configuration::DecodedKey() const {
  return decode_server_key(setting(kPublicKey).value);
}

KeyReport Configuration::JudgeKey(bool accepted, Findings* findings) const {
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
  std::string upper = key.value;
  for (char& c : upper)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const ServerKey meant = decode_server_key(upper);
  const std::size_t length = report.decoded.length;
  if (key.value.find_first_not_of("0123456789ABCDEFabcdef") != std::string::npos)
    text += ", and characters that are no hexadecimal digits";
  if (problem.id == "key-lower-case" &&
      std::equal(meant.bytes, meant.bytes + kRawKeyLength, report.decoded.bytes)) {
    severity = Severity::kWarning;
    text += "; this one comes out right by luck, as none is the second digit of a byte";
  } else if (length == kRawKeyLength) {
    text +=
        "; it is decoded to another key, " + hex_digits(report.decoded.bytes, length) + consequence;
  } else {
    text += "; it is decoded to " + std::to_string(length) + (length == 1 ? " byte" : " bytes") +
            (accepted ? "" : ", which libzmq does not take for a key") + consequence;
  }
  findings->push_back({problem.id, severity, text, problem.remedy});
  return report;
}

DiskReport Configuration::JudgeDisk(Findings* findings) const {
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
  if (disk.disk_mb <= 0)
    findings->push_back({"disk-not-measured", Severity::kWarning,
                         "the size of the working directory's disk cannot be found out: the "
                         "plug-in will count it as 0 MB",
                         "start the host, and this check, in a folder that it may read"});
  if (wraps(disk.limit_mb, disk.limit_bytes))
    findings->push_back({"disk-limit-wraps", Severity::kWarning,
                         "the spool's limit of " + arithmetic(disk.limit_mb, disk.limit_bytes),
                         "set disk.usage.absolute to 2047 at most"});
  else if (disk.limit_mb <= 0 && disk.disk_mb > 0)
    findings->push_back({"disk-limit-not-positive", Severity::kWarning,
                         "the spool's limit comes out as " + std::to_string(disk.limit_mb) + " MB",
                         "set disk.usage.relative and disk.usage.absolute to more than 0"});
  if (wraps(chunk_, disk.chunk_bytes))
    findings->push_back(
        {"chunk-size-wraps", Severity::kWarning,
         "pqueue.chunk.size of " + arithmetic(chunk_, disk.chunk_bytes) +
             (disk.chunk_bytes <= 0 ? "; every spooled event would begin a new file" : ""),
         "set it to 2047 at most; 10 is the default"});
  else if (chunk_ <= 0)
    findings->push_back({"chunk-size-not-positive", Severity::kWarning,
                         "pqueue.chunk.size of " + std::to_string(chunk_) +
                             " MB: every spooled event would begin a new file",
                         "set it to 1 at least; 10 is the default"});
  return disk;
}

std::string hex_digits(const void* bytes, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    const unsigned char byte = static_cast<const unsigned char*>(bytes)[i];
    text += "0123456789ABCDEF"[byte >> 4];
    text += "0123456789ABCDEF"[byte & 15];
  }
  return text;
}
