##! Sends the records of the SMTP log.

@load base/protocols/smtp
@load ./streams.bro

module LogZMQ;

export {
	redef enum Log::ID += { SMTP_LOG };

	## The columns of an SMTP record. The host's own record under the name smtp gives each of its
	## columns the prefix "smtp.".
	type SMTPRecord: record {
		ptype: string &log;
		ts: time &log;
		uid: string &log;
		id: conn_id &log;
		smtp: SMTP::Info &log;
	};
}

redef not_as_pairs += { SMTP::LOG };

function send_smtp(rec: SMTP::Info)
	{
	Log::write(LogZMQ::SMTP_LOG, [$ptype="smtp", $ts=rec$ts, $uid=rec$uid, $id=rec$id, $smtp=rec]);
	}

function take_smtp(id: Log::ID, path: string, rec: any): string
	{
	send_smtp(rec);
	return path;
	}

event bro_init() &priority=5
	{
	Log::create_stream(LogZMQ::SMTP_LOG, [$columns=SMTPRecord, $path="smtp"]);
	send_by_zmq(LogZMQ::SMTP_LOG, "smtp");
	}

event bro_init() &priority=4
	{
	take_records(SMTP::LOG, take_smtp);
	}
