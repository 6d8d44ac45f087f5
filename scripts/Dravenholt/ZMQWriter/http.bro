##! Sends the records of the HTTP log.

@load base/protocols/http
@load ./streams.bro

module LogZMQ;

export {
	redef enum Log::ID += { HTTP_LOG };

	## The columns of an HTTP record that get the prefix "http.". A record of one's own, because the
	## writer's name for the host's column username is http.user.
	type HTTPColumns: record {
		user: string &log &optional;
		method: string &log &optional;
		host: string &log &optional;
		uri: string &log &optional;
		status_code: count &log &optional;
		request_body_len: count &log;
		response_body_len: count &log;
	};

	## The columns of an HTTP record.
	type HTTPRecord: record {
		ptype: string &log;
		ts: time &log;
		uid: string &log;
		id: conn_id &log;
		http: HTTPColumns &log;
	};
}

redef not_as_pairs += { HTTP::LOG };

function send_http(rec: HTTP::Info)
	{
	local columns: HTTPColumns = [$request_body_len=rec$request_body_len,
	                              $response_body_len=rec$response_body_len];

	if ( rec?$username )
		columns$user = rec$username;
	if ( rec?$method )
		columns$method = rec$method;
	if ( rec?$host )
		columns$host = rec$host;
	if ( rec?$uri )
		columns$uri = rec$uri;
	if ( rec?$status_code )
		columns$status_code = rec$status_code;

	Log::write(LogZMQ::HTTP_LOG, [$ptype="http", $ts=rec$ts, $uid=rec$uid, $id=rec$id, $http=columns]);
	}

function take_http(id: Log::ID, path: string, rec: any): string
	{
	send_http(rec);
	return path;
	}

event bro_init() &priority=5
	{
	Log::create_stream(LogZMQ::HTTP_LOG, [$columns=HTTPRecord, $path="http"]);
	send_by_zmq(LogZMQ::HTTP_LOG, "http");
	}

event bro_init() &priority=4
	{
	take_records(HTTP::LOG, take_http);
	}
