// Sends one record of each kind through the real writer, worker and libzmq, for witness.py.
//
//     WitnessSender ENDPOINT PUBLIC_KEY
//
// Works in the current folder. Exits with 0 once everything was handed to libzmq and the host was
// ended in order, with 1 when that takes too long.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "WriterStatus.h"
#include "ZMQ.h"

#include "logging/Component.h"
#include "logging/WriterFrontend.h"
#include "standin/Host.h"

#include "RecordBuilder.h"
#include "ScriptConstants.h"

using test::RecordBuilder;

namespace {

/// A log and its one record.
struct Log {
  explicit Log(const std::string& log_path) : path(log_path), record(new RecordBuilder) {}
  std::string path;
  std::unique_ptr<RecordBuilder> record;
};

std::vector<Log> all_kinds() {
  std::vector<Log> logs;
  const auto log = [&logs](const char* path) -> RecordBuilder& {
    logs.emplace_back(path);
    return *logs.back().record;
  };

  log("conn")
      .time("ts", 1340213005.165293)
      .text("uid", "conn4")
      .addr("id.orig_h", "10.0.0.5")
      .port("id.orig_p", 51000)
      .addr("id.resp_h", "192.168.0.255")
      .port("id.resp_p", 443)
      .enumerator("proto", "TCP")
      .text("service", "ssl")
      .interval("duration", 1.2345)
      .count("orig_bytes", (1ULL << 32) + 5)
      .count("resp_bytes", 4294967295ULL)
      .text("conn_state", "SF")
      .boolean("local_orig", true)
      .boolean("local_resp", false)
      .count("missed_bytes", 7)
      .text("history", "ShADadfF")
      .count("orig_pkts", 8)
      .count("orig_ip_bytes", 9)
      .count("resp_pkts", 10)
      .count("resp_ip_bytes", 11)
      .unset("username", TYPE_STRING)
      .text("process", "Google Chrome He")
      .text("ptype", "general");
  log("conn6")
      .text("ptype", "General")
      .text("uid", "conn6")
      .addr("id.orig_h", "2001:db8::ff00:42:8329")
      .addr("id.resp_h", "fe80::1")
      .enumerator("proto", "icmp");
  log("conn-empty").text("ptype", "GENERAL").text("uid", "conn0").enumerator("proto", "sctp");
  log("ftp")
      .text("uid", "ftp")
      .text("ptype", "ftp")
      .text("ftp.user", "anonymous")
      .text("ftp.command", "RETR")
      .text("ftp.arg", "ftp://10.0.0.1/./pub/caf\xc3\xa9")
      .count("ftp.reply_code", 65536 + 226)
      .count("ftp.file_size", 0xfedcba9876543210ULL);
  log("http")
      .text("ptype", "HTTP")
      .text("uid", "http")
      .text("http.user", "alice")
      .text("http.method", "GET")
      .text("http.host", "example.net")
      .text("http.uri", std::string("/\0\xff?q=%s", 8))
      .count("http.status_code", 404)
      .count("http.request_body_len", 1ULL << 40)
      .count("http.response_body_len", 3);
  log("http-in")
      .text("ptype", "Http-In")
      .text("uid", "http-in")
      .text("http.host", "not read")
      .vec("extra_fields", {"VERB", "Url", "user", "host", "beyond"})
      .vec("extra_vals", {"GET", "/index", "bob", "h"});
  log("ldap")
      .text("ptype", "ldap")
      .text("uid", "ldap")
      .text("ldap.user", "cn=alice")
      .text("ldap.message", "searchRequest")
      .text("ldap.base", "dc=example,dc=net")
      .count("ldap.resultCode", 49);
  log("smb")
      .text("ptype", "smb")
      .text("uid", "smb")
      .text("smb.user", "alice")
      .text("smb.share", "\\\\server\\share")
      .text("smb.filename", "r\xe9sum\xe9.doc")
      .text("smb.action", "SMB::FILE_OPEN")
      .count("smb.filesize", 123456789012ULL);
  log("smtp")
      .text("ptype", "smtp")
      .text("uid", "smtp")
      .text("smtp.from", "<alice@example.net>")
      .set("smtp.to", {"alice", "bob"})
      .unset("smtp.subject", TYPE_STRING)
      .count("smtp.reqSize", 2048);
  log("tds")
      .text("ptype", "tds")
      .text("uid", "tds")
      .text("tds.user", "sa")
      .text("tds.database", "master")
      .text("tds.app", "app")
      .text("tds.sql", std::string(100000, 'q'));
  log("dce")
      .text("ptype", "dce-rpc")
      .text("uid", "dce")
      .text("dce.request_type", "request")
      .text("dce.interface_uuid", "12345778-1234-abcd-ef00-0123456789ac")
      .text("dce.interface_name", "samr")
      .count("dce.opnum", 0xffffffffULL)
      .text("dce.method", "SamrConnect5")
      .text("dce.arguments", "a,b")
      .text("dce.raw_args", std::string("\0\1\2\3", 4));
  log("tn5250")
      .text("ptype", "tn5250")
      .text("uid", "tn5250")
      .text("tn5250.protocol", "tn5250")
      .text("tn5250.details", "field 1");
  log("dns")
      .unset("uid", TYPE_STRING)
      .text("ptype", "dns")
      .vec("extra_fields", {"query", "answers", "dropped"})
      .vec("extra_vals", {"example.net", "192.0.2.1"});
  log("bare").text("uid", "bare");
  log("stats")
      .text("uid", "not used")
      .real("cpu_usage", 0.25)
      .time("ts", 1340213099.5)
      .integer("priority", -20)
      .count("ph_mem_total", 8192)
      .count("ph_mem_used", 6835)
      .count("virt_mem_total", (1ULL << 32) + 1)
      .count("virt_mem_used", 6835)
      .real("hdd_volume", 3.814697265625)
      .real("hdd_used", 2.86102294921875)
      .real("hdd_avail", 0.95367431640625);
  return logs;
}

bool all_handed_over(std::uint64_t count) {
  DravenholtZmqWriterStatus status;
  dravenholt_zmqwriter_status(&status);
  return status.sent >= count && status.queued == 0 && !status.in_work && !status.spooled;
}

bool send(const std::vector<Log>& logs) {
  standin::Host host{standin::Host::Options()};
  const logging::Component component("ZMQ", logging::writer::ZMQ::Instantiate);
  for (const Log& log : logs) {
    logging::WriterFrontend* writer = host.CreateWriter("ZMQ", log.path, log.record->field_list());
    writer->Write(log.record->size(), test::copy_values(*log.record));
    writer->FlushWriteBuffer();
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  bool done = false;
  while (!done && std::chrono::steady_clock::now() < deadline) {
    if (!host.Pump())
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    done = all_handed_over(logs.size());
  }
  host.Finish();
  return done;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: WitnessSender ENDPOINT PUBLIC_KEY\n");
    return 2;
  }
  const test::ScriptConstants constants;
  test::ScriptConstants::set(BifConst::LogZMQ::zmq_primary_server, argv[1]);
  test::ScriptConstants::set(BifConst::LogZMQ::zmq_public_key, argv[2]);
  test::ScriptConstants::set(BifConst::LogZMQ::zmq_secondary_server, "");
  test::ScriptConstants::set(BifConst::LogZMQ::zmq_agent_id, "witness agent");
  return send(all_kinds()) ? 0 : 1;
}
