# What the plug-in's scripts use of the host's scripts, as declarations, for the checker of our
# scripts (tests/system/bro_scripts.py). Only what is used or what a used record holds.

# --- before the plug-in's scripts: the base of the host ------------------------------------------

type string_vec: vector of string;
type transport_proto: enum { unknown_transport, tcp, udp, icmp };

type conn_id: record {
	orig_h: addr;
	orig_p: port;
	resp_h: addr;
	resp_p: port;
} &log;

type connection: record {
	id: conn_id;
	uid: string;
};

# Where a column's value is any, type_name tells its type: "string", "set[addr]", "record ...".
type record_field: record {
	log: bool;
	value: any &optional;
};

type record_field_table: table[string] of record_field;

global fmt: function(va_args: any): string;
global network_time: function(): time;
global record_fields: function(rec: any): record_field_table;
global type_name: function(t: any): string;
global port_to_count: function(p: port): count;
global get_port_transport_proto: function(p: port): transport_proto;

global bro_init: event();
global new_connection: event(c: connection);
global connection_established: event(c: connection);
global reporter_warning: event(t: time, msg: string, location: string);

module Log;

export {
	type ID: enum { UNKNOWN };
	type Writer: enum { WRITER_NONE, WRITER_ASCII, WRITER_ZMQ };

	const default_writer = WRITER_ASCII &redef;
	const default_rotation_interval = 0secs &redef;
	const enable_local_logging = T &redef;
	const enable_remote_logging = T &redef;

	type Stream: record {
		columns: any;
		ev: any &optional;
		path: string &optional;
	};

	type RotationInfo: record {
		writer: Writer;
		fname: string;
		path: string;
		open: time;
		close: time;
		terminating: bool;
	};

	type Filter: record {
		name: string;
		writer: Writer &default=default_writer;
		pred: function(rec: any): bool &optional;
		path: string &optional;
		path_func: function(id: ID, path: string, rec: any): string &optional;
		include: set[string] &optional;
		exclude: set[string] &optional;
		log_local: bool &default=enable_local_logging;
		log_remote: bool &default=enable_remote_logging;
		interv: interval &default=default_rotation_interval;
		postprocessor: function(info: RotationInfo): bool &optional;
		config: table[string] of string &default=table();
	};

	global create_stream: function(id: ID, stream: Stream): bool;
	global add_filter: function(id: ID, filter: Filter): bool;
	global remove_filter: function(id: ID, name: string): bool;
	global get_filter: function(id: ID, name: string): Filter;
	global remove_default_filter: function(id: ID): bool;
	global write: function(id: ID, columns: any): bool;
	global active_streams: table[ID] of Stream;
}

# --- what the base scripts of the protocols declare ----------------------------------------------
# Without the events for written records, log_conn and the like: when they are handled, the host may
# have changed the record already, so no script of ours may take its values there.

module Conn;

export {
	redef enum Log::ID += { LOG };

	type Info: record {
		ts: time &log;
		uid: string &log;
		id: conn_id &log;
		proto: transport_proto &log;
		service: string &log &optional;
		duration: interval &log &optional;
		orig_bytes: count &log &optional;
		resp_bytes: count &log &optional;
		conn_state: string &log &optional;
		local_orig: bool &log &optional;
		local_resp: bool &log &optional;
		missed_bytes: count &log &default=0;
		history: string &log &optional;
		orig_pkts: count &log &optional;
		orig_ip_bytes: count &log &optional;
		resp_pkts: count &log &optional;
		resp_ip_bytes: count &log &optional;
		tunnel_parents: set[string] &log;
	};
}

module HTTP;

export {
	redef enum Log::ID += { LOG };
	type Tags: enum { EMPTY };

	type Info: record {
		ts: time &log;
		uid: string &log;
		id: conn_id &log;
		trans_depth: count &log;
		method: string &log &optional;
		host: string &log &optional;
		uri: string &log &optional;
		referrer: string &log &optional;
		user_agent: string &log &optional;
		request_body_len: count &log &default=0;
		response_body_len: count &log &default=0;
		status_code: count &log &optional;
		status_msg: string &log &optional;
		info_code: count &log &optional;
		info_msg: string &log &optional;
		filename: string &log &optional;
		tags: set[Tags] &log;
		username: string &log &optional;
		password: string &log &optional;
		proxied: set[string] &log &optional;
		orig_fuids: vector of string &log &optional;
		orig_mime_types: vector of string &log &optional;
		resp_fuids: vector of string &log &optional;
		resp_mime_types: vector of string &log &optional;
	};
}

module FTP;

export {
	redef enum Log::ID += { LOG };

	type DataChannel: record {
		passive: bool &log;
		orig_h: addr &log;
		resp_h: addr &log;
		resp_p: port &log;
	};

	type Info: record {
		ts: time &log;
		uid: string &log;
		id: conn_id &log;
		user: string &log &default="<unknown>";
		password: string &log &optional;
		command: string &log &optional;
		arg: string &log &optional;
		mime_type: string &log &optional;
		file_size: count &log &optional;
		reply_code: count &log &optional;
		reply_msg: string &log &optional;
		data_channel: DataChannel &log &optional;
		fuid: string &log &optional;
	};
}

module SMTP;

export {
	redef enum Log::ID += { LOG };

	type Info: record {
		ts: time &log;
		uid: string &log;
		id: conn_id &log;
		trans_depth: count &log;
		helo: string &log &optional;
		mailfrom: string &log &optional;
		rcptto: set[string] &log &optional;
		date: string &log &optional;
		from: string &log &optional;
		to: set[string] &log &optional;
		cc: set[string] &log &optional;
		reply_to: string &log &optional;
		msg_id: string &log &optional;
		in_reply_to: string &log &optional;
		subject: string &log &optional;
		x_originating_ip: addr &log &optional;
		first_received: string &log &optional;
		second_received: string &log &optional;
		last_reply: string &log &optional;
		path: vector of addr &log &optional;
		user_agent: string &log &optional;
		tls: bool &log &default=F;
		fuids: vector of string &log &default=vector();
	};
}
