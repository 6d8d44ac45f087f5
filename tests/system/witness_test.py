"""An independent witness of the wire format.

Receives over CURVE with pyzmq what the plug-in sends through the real libzmq, and decodes it with
the FlatBuffers runtime for Python and code that flatc has generated out of the schema. Every field
of every event is checked by its value, absent texts (None) apart from empty ones (b'').
"""

import unittest

from cli_support import DEADLINE, needs_zmq, schema, write_file, zmq
from replay_test import AGENT, ReplayTestCase, minutes_west

# Scalars and texts of each table, in the order of the format, as the generated code names them
# (From_, as Python has a word "from"). What is no plain value has its own decoder below.
PLAIN_FIELDS = {
    "GeneralData": "OrigName OrigP RespName RespP Proto Duration OrigBytes RespBytes ConnState"
                   " LocalOrig LocalResp MissedBytes History OrigPkts OrigIpBytes RespPkts"
                   " RespIpBytes Username Process Service",
    "FtpData": "User Command ReplyCode Arg FileSize",
    "HttpData": "User Method Host Uri StatusCode RequestBodyLen ResponseBodyLen",
    "LdapData": "User Message ResultCode Base",
    "SmbData": "User Share Filename Action Filesize",
    "SmtpData": "From_ To Subject ReqSize",
    "TdsData": "User Database App Sql",
    "DceRpcData": "RequestType InterfaceUuid InterfaceName Opnum Method Arguments RawArgs",
    "Tn5250Data": "Protocol Details",
    "GenericProtocolData": "Ptype",
    "SystemStatsData": "CpuUsage Priority PhMemTotal PhMemUsed VirtMemTotal VirtMemUsed HddVolume"
                       " HddUsed HddAvail",
}
# By union tag.
TABLES = [None, "GeneralData", "FtpData", "HttpData", "LdapData", "SmbData", "SmtpData", "TdsData",
          "DceRpcData", "Tn5250Data", "GenericProtocolData", "SystemStatsData"]


def byte_vector(table, name):
    if getattr(table, name + "IsNone")():
        return None
    return bytes(getattr(table, name)(i) & 0xFF for i in range(getattr(table, name + "Length")()))


def decode_payload(name, union):
    table = getattr(schema()[name], name)()
    table.Init(union.Bytes, union.Pos)
    values = {field: getattr(table, field)() for field in PLAIN_FIELDS[name].split()}
    if name == "GeneralData":
        values["OrigH"] = byte_vector(table, "OrigH")
        values["RespH"] = byte_vector(table, "RespH")
    if name == "GenericProtocolData":
        values["Fields"] = [(table.Fields(i).Key(), table.Fields(i).Value())
                            for i in range(table.FieldsLength())]
    return values


def decode(message):
    event = schema()["NetworkEvent"].NetworkEvent.GetRootAs(message, 0)
    union = event.Data()
    return {
        "uid": event.Uid(),
        "ts": event.Ts(),
        "tz": event.TzMinutesWest(),
        "agent": event.AgentId(),
        "type": event.DataType(),
        "data": decode_payload(TABLES[event.DataType()], union) if union is not None else None,
    }


def general(**changes):
    """A connection record with nothing in it: these are always there."""
    values = dict.fromkeys(PLAIN_FIELDS["GeneralData"].split(), 0)
    values.update(OrigName=b"", RespName=b"", History=b"", ConnState=None, Username=None,
                  Process=None, Service=None, OrigH=b"", RespH=b"")
    values.update(changes)
    return values


def event(tag, uid, data, ts=0.0):
    return {"uid": uid, "ts": ts, "tz": minutes_west(), "agent": AGENT.encode(), "type": tag,
            "data": data}


# Of each log, the columns of its record (name, type, value), and the event that it becomes. Logs with
# a column ptype or cpu_usage have the columns that the plug-in's scripts give it.
LOGS = [
    (r"ptype string general|ts time 1340213005.165293|uid string conn4|id.orig_h addr 10.0.0.5|"
     r"id.orig_p port 51000|id.resp_h addr 192.168.0.255|id.resp_p port 443|proto enum TCP|"
     r"service string ssl|duration interval 1.2345|orig_bytes count 4294967301|"
     r"resp_bytes count 4294967295|conn_state string SF|local_orig bool T|local_resp bool F|"
     r"missed_bytes count 7|history string ShADadfF|orig_pkts count 8|orig_ip_bytes count 9|"
     r"resp_pkts count 10|resp_ip_bytes count 11|username string -|process string Google Chrome He",
     event(1, b"conn4", general(
         OrigH=bytes([10, 0, 0, 5]), OrigP=51000, RespH=bytes([192, 168, 0, 255]), RespP=443,
         Proto=1, Duration=1234, OrigBytes=5, RespBytes=4294967295, ConnState=b"SF", LocalOrig=1,
         MissedBytes=7, OrigPkts=8, OrigIpBytes=9, RespPkts=10, RespIpBytes=11, Username=b"",
         Process=b"Google Chrome He", Service=b"ssl"), ts=1340213005.165293)),
    (r"ptype string General|uid string conn6|id.orig_h addr 2001:db8::ff00:42:8329|"
     r"id.resp_h addr fe80::1|proto enum icmp",
     event(1, b"conn6", general(
         OrigH=bytes.fromhex("20010db8000000000000ff0000428329"),
         RespH=bytes.fromhex("fe800000000000000000000000000001"), Proto=3))),
    (r"ptype string GENERAL|uid string conn0|proto enum sctp", event(1, b"conn0", general())),
    (r"uid string ftp|ptype string ftp|ftp.user string anonymous|ftp.command string RETR|"
     r"ftp.arg string ftp://10.0.0.1/./pub/caf\xc3\xa9|ftp.reply_code count 65762|"
     r"ftp.file_size count 18364758544493064720",
     event(2, b"ftp", {
         "User": b"anonymous", "Command": b"RETR", "ReplyCode": 226,
         "Arg": b"ftp://10.0.0.1/./pub/caf\xc3\xa9", "FileSize": 0xFEDCBA9876543210})),
    (r"ptype string HTTP|uid string http|http.user string alice|http.method string GET|"
     r"http.host string example.net|http.uri string /\x00\xff?q=%s|http.status_code count 404|"
     r"http.request_body_len count 1099511627776|http.response_body_len count 3",
     event(3, b"http", {
         "User": b"alice", "Method": b"GET", "Host": b"example.net", "Uri": b"/\0\xff?q=%s",
         "StatusCode": 404, "RequestBodyLen": 1 << 40, "ResponseBodyLen": 3})),
    (r"ptype string Http-In|uid string http-in|http.host string not read|"
     r"extra_fields vector[string] VERB,Url,user,host,beyond|extra_vals vector[string] GET,/index,bob,h",
     event(3, b"http-in", {
         "User": b"bob", "Method": b"GET", "Host": None, "Uri": b"/index", "StatusCode": 0,
         "RequestBodyLen": 0, "ResponseBodyLen": 0})),
    (r"ptype string ldap|uid string ldap|ldap.user string cn=alice|ldap.message string searchRequest|"
     r"ldap.base string dc=example,dc=net|ldap.resultCode count 49",
     event(4, b"ldap", {"User": b"cn=alice", "Message": b"searchRequest", "ResultCode": 49,
                        "Base": b"dc=example,dc=net"})),
    (r"ptype string smb|uid string smb|smb.user string alice|smb.share string \\\\server\\share|"
     r"smb.filename string r\xe9sum\xe9.doc|smb.action string SMB::FILE_OPEN|"
     r"smb.filesize count 123456789012",
     event(5, b"smb", {
         "User": b"alice", "Share": b"\\\\server\\share", "Filename": b"r\xe9sum\xe9.doc",
         "Action": b"SMB::FILE_OPEN", "Filesize": 123456789012})),
    (r"ptype string smtp|uid string smtp|smtp.from string <alice@example.net>|"
     r"smtp.to set[string] alice,bob|smtp.subject string -|smtp.reqSize count 2048",
     event(6, b"smtp", {
         "From_": b"<alice@example.net>", "To": b"alice,bob", "Subject": b"", "ReqSize": 2048})),
    (r"ptype string tds|uid string tds|tds.user string sa|tds.database string master|"
     r"tds.app string app|tds.sql string " + "q" * 100000,
     event(7, b"tds", {"User": b"sa", "Database": b"master", "App": b"app", "Sql": b"q" * 100000})),
    (r"ptype string dce-rpc|uid string dce|dce.request_type string request|"
     r"dce.interface_uuid string 12345778-1234-abcd-ef00-0123456789ac|"
     r"dce.interface_name string samr|dce.opnum count 4294967295|dce.method string SamrConnect5|"
     r"dce.arguments string a,b|dce.raw_args string \x00\x01\x02\x03",
     event(8, b"dce", {
         "RequestType": b"request", "InterfaceUuid": b"12345778-1234-abcd-ef00-0123456789ac",
         "InterfaceName": b"samr", "Opnum": -1, "Method": b"SamrConnect5", "Arguments": b"a,b",
         "RawArgs": b"\0\1\2\3"})),
    (r"ptype string tn5250|uid string tn5250|tn5250.protocol string tn5250|"
     r"tn5250.details string field 1",
     event(9, b"tn5250", {"Protocol": b"tn5250", "Details": b"field 1"})),
    (r"uid string dns|ptype string dns|extra_fields vector[string] query,answers,dropped|"
     r"extra_vals vector[string] example.net,192.0.2.1",
     event(10, b"dns", {
         "Ptype": b"dns", "Fields": [(b"query", b"example.net"), (b"answers", b"192.0.2.1")]})),
    (r"uid string not used|cpu_usage double 0.25|ts time 1340213099.5|priority int -20|"
     r"ph_mem_total count 8192|ph_mem_used count 6835|virt_mem_total count 4294967297|"
     r"virt_mem_used count 6835|hdd_volume double 3.814697265625|hdd_used double 2.86102294921875|"
     r"hdd_avail double 0.95367431640625",
     event(11, b"000000000000000000", {
         "CpuUsage": 0.25, "Priority": -20, "PhMemTotal": 8192, "PhMemUsed": 6835,
         "VirtMemTotal": 1, "VirtMemUsed": 6835, "HddVolume": 3.814697265625,
         "HddUsed": 2.86102294921875, "HddAvail": 0.95367431640625}, ts=1340213099.5)),
]


@needs_zmq
class WitnessTest(ReplayTestCase):
    def test_every_field_of_every_payload_type_comes_as_it_was_sent(self):
        from zmq.utils import z85
        context = zmq.Context()
        self.addCleanup(context.term)
        server = context.socket(zmq.PULL)
        self.addCleanup(server.close, 0)
        public, server.curve_secretkey = zmq.curve_keypair()
        server.curve_server = True
        server.bind("tcp://127.0.0.1:*")
        write_file("settings", "zmq.server = %s\nzmq.public_key = %s\n" % (
            server.last_endpoint.decode(), z85.decode(public).hex().upper()))
        for number, (columns, _) in enumerate(LOGS):
            names, types, values = zip(*(column.split(" ", 2) for column in columns.split("|")))
            write_file("%d.log" % number, "#separator \\x09\n" + "".join(
                "\t".join(row) + "\n" for row in (("#fields", *names), ("#types", *types), values)))
        replay = self.start_replay(*("%d.log" % number for number in range(len(LOGS))))
        expected = {wanted["uid"]: wanted for _, wanted in LOGS}
        self.assertEqual({wanted["type"] for wanted in expected.values()}, set(range(1, 12)))
        while expected:
            self.assertTrue(server.poll(DEADLINE * 1000), "never came: %s" % list(expected))
            (message,) = server.recv_multipart()
            got = decode(message)
            self.assertEqual(got, expected.pop(got["uid"], None))
        self.assertEqual(replay.wait(), 0, replay.stderr)
        # Everything was handed over before the end: what comes now is one too many.
        self.assertEqual(server.poll(500), 0)


if __name__ == "__main__":
    unittest.main()
