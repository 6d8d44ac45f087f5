##! Sends connection records, with the local process and user that own the socket where the host
##! knows them.

@load base/protocols/conn
@load ./streams.bro

module LogZMQ;

export {
	redef enum Log::ID += { CONNECTIONS_LOG };

	## How long the owner of a socket is remembered for a connection that has not ended.
	const owner_expire = 1day &redef;

	## The columns of a connection record: those of the host's connection log, unprefixed, with the
	## kind of record in front and the owner of the socket behind.
	type Connection: record {
		ptype: string &log;
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
		missed_bytes: count &log;
		history: string &log &optional;
		orig_pkts: count &log &optional;
		orig_ip_bytes: count &log &optional;
		resp_pkts: count &log &optional;
		resp_ip_bytes: count &log &optional;
		tunnel_parents: set[string] &log;
		username: string &log &optional;
		process: string &log &optional;
	};
}

redef not_as_pairs += { Conn::LOG };

type Owner: record {
	process: string;
	username: string;
};

# By uid. Asked for while the connection lives: when its record is written, the socket may be gone.
global owners: table[string] of Owner &create_expire=owner_expire;

function find_owner(c: connection)
	{
	# Only TCP sockets are searched, which takes time: another flow could at best get the owner of a
	# TCP connection with the same ports.
	if ( get_port_transport_proto(c$id$resp_p) != tcp || c$uid in owners )
		return;

	# The process first, the user second; both empty if nobody is known.
	local answer = LogZMQ::__detect_user(c);

	if ( |answer| == 2 && (answer[0] != "" || answer[1] != "") )
		owners[c$uid] = [$process=answer[0], $username=answer[1]];
	}

event new_connection(c: connection)
	{
	find_owner(c);
	}

event connection_established(c: connection)
	{
	find_owner(c);
	}

function send_connection(rec: Conn::Info)
	{
	local r: Connection = [$ptype="general", $ts=rec$ts, $uid=rec$uid, $id=rec$id, $proto=rec$proto,
	                       $missed_bytes=rec$missed_bytes, $tunnel_parents=rec$tunnel_parents];

	if ( rec?$service )
		r$service = rec$service;
	if ( rec?$duration )
		r$duration = rec$duration;
	if ( rec?$orig_bytes )
		r$orig_bytes = rec$orig_bytes;
	if ( rec?$resp_bytes )
		r$resp_bytes = rec$resp_bytes;
	if ( rec?$conn_state )
		r$conn_state = rec$conn_state;
	if ( rec?$local_orig )
		r$local_orig = rec$local_orig;
	if ( rec?$local_resp )
		r$local_resp = rec$local_resp;
	if ( rec?$history )
		r$history = rec$history;
	if ( rec?$orig_pkts )
		r$orig_pkts = rec$orig_pkts;
	if ( rec?$orig_ip_bytes )
		r$orig_ip_bytes = rec$orig_ip_bytes;
	if ( rec?$resp_pkts )
		r$resp_pkts = rec$resp_pkts;
	if ( rec?$resp_ip_bytes )
		r$resp_ip_bytes = rec$resp_ip_bytes;

	if ( rec$uid in owners )
		{
		r$process = owners[rec$uid]$process;
		r$username = owners[rec$uid]$username;
		delete owners[rec$uid];
		}

	Log::write(LogZMQ::CONNECTIONS_LOG, r);
	}

function take_connection(id: Log::ID, path: string, rec: any): string
	{
	send_connection(rec);
	return path;
	}

event bro_init() &priority=5
	{
	Log::create_stream(LogZMQ::CONNECTIONS_LOG, [$columns=Connection, $path="conn"]);
	send_by_zmq(LogZMQ::CONNECTIONS_LOG, "conn");
	}

event bro_init() &priority=4
	{
	take_records(Conn::LOG, take_connection);
	}
