##! Sends the records of the FTP log.

@load base/protocols/ftp
@load ./streams.bro

module LogZMQ;

export {
	redef enum Log::ID += { FTP_LOG };

	## The columns of an FTP record. The host's own record under the name ftp gives each of its
	## columns the prefix "ftp.".
	type FTPRecord: record {
		ptype: string &log;
		ts: time &log;
		uid: string &log;
		id: conn_id &log;
		ftp: FTP::Info &log;
	};
}

redef not_as_pairs += { FTP::LOG };

function send_ftp(rec: FTP::Info)
	{
	Log::write(LogZMQ::FTP_LOG, [$ptype="ftp", $ts=rec$ts, $uid=rec$uid, $id=rec$id, $ftp=rec]);
	}

function take_ftp(id: Log::ID, path: string, rec: any): string
	{
	send_ftp(rec);
	return path;
	}

event bro_init() &priority=5
	{
	Log::create_stream(LogZMQ::FTP_LOG, [$columns=FTPRecord, $path="ftp"]);
	send_by_zmq(LogZMQ::FTP_LOG, "ftp");
	}

event bro_init() &priority=4
	{
	take_records(FTP::LOG, take_ftp);
	}
