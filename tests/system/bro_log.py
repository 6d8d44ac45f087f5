"""Logs as the test sees them: an own reading of the host's ASCII logs, and what must become of them.

Written without a look at the tools' reader, as its witness: bytes in, plain Python values out.
"""

import ipaddress
import re


class BroLog:
    """One log with one header. `records` are lists of raw column texts (bytes)."""

    def __init__(self, data):
        self.separator, self.set_separator = b"\t", b","
        self.empty, self.unset, self.path = b"(empty)", b"-", None
        self.names, self.types, self.records = [], [], []
        for line in data.split(b"\n")[:-1]:
            if line.startswith(b"#separator "):
                self.separator = unescape(line[len(b"#separator "):])
            elif line.startswith(b"#"):
                self._meta(*line[1:].split(self.separator))
            else:
                self.records.append(line.split(self.separator))

    def _meta(self, name, *words):
        if name == b"set_separator":
            self.set_separator = unescape(words[0])
        elif name == b"empty_field":
            self.empty = words[0]
        elif name == b"unset_field":
            self.unset = words[0]
        elif name == b"path":
            self.path = words[0].decode()
        elif name == b"fields":
            self.names = [word.decode() for word in words]
        elif name == b"types":
            self.types = [word.decode() for word in words]

    def columns(self, record):
        """name -> (type, raw text or None when unset) of one record, in order."""
        return {name: (type_, None if text == self.unset else text)
                for name, type_, text in zip(self.names, self.types, record, strict=True)}

    def text(self, type_, raw):
        """The value's text with escapes undone, as str with surrogate escapes."""
        if raw is None or raw == self.empty and ("[" in type_ or type_ == "string"):
            return ""
        if "[" in type_:
            parts = [b"" if part == self.empty and "string" in type_ else unescape(part)
                     for part in raw.split(self.set_separator)]
            return b",".join(parts).decode("utf-8", "surrogateescape")
        return unescape(raw).decode("utf-8", "surrogateescape")


def unescape(raw):
    return re.sub(rb"\\(\\|x[0-9a-fA-F]{2})",
                  lambda match: b"\\" if match[1] == b"\\" else bytes.fromhex(match[1][1:].decode()),
                  raw)


# Payload by path: table, prefix of the columns, field -> (column, kind).
GENERAL = {
    "orig_h": ("id.orig_h", "addr"), "orig_p": ("id.orig_p", 16), "resp_h": ("id.resp_h", "addr"),
    "resp_p": ("id.resp_p", 16), "proto": ("proto", "proto"), "duration": ("duration", "ms"),
    "orig_bytes": ("orig_bytes", 32), "resp_bytes": ("resp_bytes", 32),
    "conn_state": ("conn_state", "text"), "local_orig": ("local_orig", "bool"),
    "local_resp": ("local_resp", "bool"), "missed_bytes": ("missed_bytes", 32),
    "orig_pkts": ("orig_pkts", 32), "orig_ip_bytes": ("orig_ip_bytes", 32),
    "resp_pkts": ("resp_pkts", 32), "resp_ip_bytes": ("resp_ip_bytes", 32),
    "username": ("username", "text"), "process": ("process", "text"),
    "service": ("service", "text"),
}
PAYLOADS = {
    "conn": ("GeneralData", GENERAL),
    "http": ("HttpData", {
        "user": ("username", "text"), "method": ("method", "text"), "host": ("host", "text"),
        "uri": ("uri", "text"), "status_code": ("status_code", 16),
        "request_body_len": ("request_body_len", 64),
        "response_body_len": ("response_body_len", 64)}),
    "ftp": ("FtpData", {
        "user": ("user", "text"), "command": ("command", "text"), "reply_code": ("reply_code", 16),
        "arg": ("arg", "text"), "file_size": ("file_size", 64)}),
    "smtp": ("SmtpData", {
        "from": ("from", "text"), "to": ("to", "text"), "subject": ("subject", "text"),
        "req_size": ("reqSize", 64)}),
}
STATISTICS = {"cpu_usage": float, "priority": int, "ph_mem_total": int, "ph_mem_used": int,
              "virt_mem_total": int, "virt_mem_used": int, "hdd_volume": float, "hdd_used": float,
              "hdd_avail": float}


def field(log, columns, column, kind):
    """One payload field; a column that the log lacks leaves the schema's default."""
    absent = column not in columns
    type_, raw = columns.get(column, (None, None))
    if kind == "text":
        return None if absent else log.text(type_, raw)
    if kind == "addr":
        if absent:
            return ""
        return "0.0.0.0" if raw is None else str(ipaddress.ip_address(raw.decode()))
    if kind == "proto":
        name = (raw or b"").decode().lower()
        return name if name in ("tcp", "udp", "icmp") else "unknown"
    if raw is None:
        return 0
    if kind == "ms":
        return int(float(raw) * 1000.0)
    if kind == "bool":
        return int(raw == b"T")
    return int(raw) % 2 ** kind


def expected_event(log, record, agent_id, tz_minutes_west):
    """The event of one record, as `collect` prints it. The `ts` of statistics is None: it is the
    time of sending."""
    columns = log.columns(record)
    event = {"uid": None, "ts": 0.0, "tz_minutes_west": tz_minutes_west, "agent_id": agent_id}
    has_time = columns.get("ts", (None, None))[0] == "time"
    if has_time and columns["ts"][1] is not None:
        event["ts"] = float(columns["ts"][1])
    if columns.get("uid", (None, None))[1] is not None:
        event["uid"] = log.text(*columns["uid"])

    if "cpu_usage" in columns:
        event.update(uid="0" * 18, ts=None, data_type="SystemStatsData",
                     data={name: kind(columns[name][1]) for name, kind in STATISTICS.items()})
    elif log.path in PAYLOADS:
        table, fields = PAYLOADS[log.path]
        data = {name: field(log, columns, *source) for name, source in fields.items()}
        if table == "GeneralData":
            data.update(orig_name="", resp_name="", history="")
        event.update(data_type=table, data=data)
    else:
        pairs = [("_path", log.path)] + [
            (name, log.text(*column)) for name, column in columns.items()
            if name != "uid" and not (name == "ts" and has_time) and column[1] is not None]
        event.update(data_type="GenericProtocolData", data={
            "ptype": None, "fields": [{"key": key, "value": value} for key, value in pairs]})
    return event
