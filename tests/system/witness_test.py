"""An independent witness of the wire format.

Receives over CURVE with pyzmq what the C++ writer sends through the real libzmq, and decodes it with
the FlatBuffers runtime for Python and code that flatc has generated out of the schema. Every field
of every event is checked by its value, absent texts (None) apart from empty ones (b'').
"""

import os
import unittest

from cli_support import BUILD_DIR, CliTest, DEADLINE, Process, needs_zmq, schema, zmq
from replay_test import minutes_west

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
    return {"uid": uid, "ts": ts, "tz": minutes_west(), "agent": b"witness agent", "type": tag,
            "data": data}


def expected_events():
    return [
        event(1, b"conn4", general(
            OrigH=bytes([10, 0, 0, 5]), OrigP=51000, RespH=bytes([192, 168, 0, 255]), RespP=443,
            Proto=1, Duration=1234, OrigBytes=5, RespBytes=4294967295, ConnState=b"SF",
            LocalOrig=1, MissedBytes=7, OrigPkts=8, OrigIpBytes=9, RespPkts=10, RespIpBytes=11,
            Username=b"", Process=b"Google Chrome He", Service=b"ssl"), ts=1340213005.165293),
        event(1, b"conn6", general(
            OrigH=bytes.fromhex("20010db8000000000000ff0000428329"),
            RespH=bytes.fromhex("fe800000000000000000000000000001"), Proto=3)),
        event(1, b"conn0", general()),
        event(2, b"ftp", {
            "User": b"anonymous", "Command": b"RETR", "ReplyCode": 226,
            "Arg": b"ftp://10.0.0.1/./pub/caf\xc3\xa9", "FileSize": 0xFEDCBA9876543210}),
        event(3, b"http", {
            "User": b"alice", "Method": b"GET", "Host": b"example.net", "Uri": b"/\0\xff?q=%s",
            "StatusCode": 404, "RequestBodyLen": 1 << 40, "ResponseBodyLen": 3}),
        event(3, b"http-in", {
            "User": b"bob", "Method": b"GET", "Host": None, "Uri": b"/index", "StatusCode": 0,
            "RequestBodyLen": 0, "ResponseBodyLen": 0}),
        event(4, b"ldap", {
            "User": b"cn=alice", "Message": b"searchRequest", "ResultCode": 49,
            "Base": b"dc=example,dc=net"}),
        event(5, b"smb", {
            "User": b"alice", "Share": b"\\\\server\\share", "Filename": b"r\xe9sum\xe9.doc",
            "Action": b"SMB::FILE_OPEN", "Filesize": 123456789012}),
        event(6, b"smtp", {
            "From_": b"<alice@example.net>", "To": b"alice,bob", "Subject": b"", "ReqSize": 2048}),
        event(7, b"tds", {"User": b"sa", "Database": b"master", "App": b"app",
                          "Sql": b"q" * 100000}),
        event(8, b"dce", {
            "RequestType": b"request", "InterfaceUuid": b"12345778-1234-abcd-ef00-0123456789ac",
            "InterfaceName": b"samr", "Opnum": -1, "Method": b"SamrConnect5",
            "Arguments": b"a,b", "RawArgs": b"\0\1\2\3"}),
        event(9, b"tn5250", {"Protocol": b"tn5250", "Details": b"field 1"}),
        event(10, b"unknown", {
            "Ptype": b"dns", "Fields": [(b"query", b"example.net"), (b"answers", b"192.0.2.1")]}),
        event(10, b"bare", None),
        event(11, b"000000000000000000", {
            "CpuUsage": 0.25, "Priority": -20, "PhMemTotal": 8192, "PhMemUsed": 6835,
            "VirtMemTotal": 1, "VirtMemUsed": 6835, "HddVolume": 3.814697265625,
            "HddUsed": 2.86102294921875, "HddAvail": 0.95367431640625}, ts=1340213099.5),
    ]


@needs_zmq
class WitnessTest(CliTest):
    def test_every_field_of_every_payload_type_comes_as_it_was_sent(self):
        from zmq.utils import z85
        expected = {wanted["uid"]: wanted for wanted in expected_events()}
        self.assertEqual({wanted["type"] for wanted in expected.values()}, set(range(1, 12)))
        context = zmq.Context()
        self.addCleanup(context.term)
        server = context.socket(zmq.PULL)
        self.addCleanup(server.close, 0)
        public, server.curve_secretkey = zmq.curve_keypair()
        server.curve_server = True
        server.bind("tcp://127.0.0.1:*")
        os.mkdir("orvik-spool")
        sender = Process([server.last_endpoint.decode(), z85.decode(public).hex().upper()],
                         program=os.path.join(BUILD_DIR, "tests", "WitnessSender"))
        self.addCleanup(sender.stop)
        while expected:
            self.assertTrue(server.poll(DEADLINE * 1000), "never came: %s" % list(expected))
            (message,) = server.recv_multipart()
            got = decode(message)
            self.assertEqual(got, expected.pop(got["uid"], None))
        self.assertEqual(sender.wait(), 0)
        # Everything was handed over before the sender ended: what comes now is one too many.
        self.assertEqual(server.poll(500), 0)


if __name__ == "__main__":
    unittest.main()
