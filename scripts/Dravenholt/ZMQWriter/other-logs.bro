##! Sends the records of every active log that no other script of this folder sends, as key/value
##! pairs: extra_fields holds the names of the columns, extra_vals their values, the elements of
##! sets and vectors joined with a comma. The values are the texts that the host writes into logs,
##! with escapes undone and with empty strings, sets and vectors as empty text. Times and intervals
##! above 2147483647 seconds have all their digits here, where the host writes 2.147484e+09; a file is
##! described here, where the host writes its name.
##!
##! The first pair is _path with the path of the log. The time and the uid have columns of their
##! own; they and columns without a value are left out of the pairs. A column ts that is not of type
##! time is a pair like others, and the record gets the network time.
##!
##! A record carries no ptype: a name that the writer has no table for costs a warning per record.
##! The reporter's log is left out: a report about one of its records would be its next record,
##! without end.

@load ./streams.bro

module LogZMQ;

export {
	redef enum Log::ID += { PAIRS_LOG, PAIRS_WITHOUT_UID_LOG };

	## The columns of a record with a uid.
	type Pairs: record {
		ts: time &log;
		uid: string &log;
		extra_fields: vector of string &log;
		extra_vals: vector of string &log;
	};

	## The columns of a record without one. A column uid without a value would do harm: the writer
	## reports it as a weird, which is a record of the host's weird log, which often has no uid.
	type PairsWithoutUID: record {
		ts: time &log;
		extra_fields: vector of string &log;
		extra_vals: vector of string &log;
	};
}

# The host takes a value of type any where a parameter has another type; the value itself is what it
# is. So these functions give a value whose type was looked up a type to work with.
global text_of: function(value: any): string;

function port_text(value: port): string
	{
	return fmt("%d", port_to_count(value));
	}

# bool stands for whatever the elements are.
function set_text(elements: set[bool]): string
	{
	local text = "";
	local separator = "";

	for ( element in elements )
		{
		text = text + separator + text_of(element);
		separator = ",";
		}

	return text;
	}

function vector_text(elements: vector of any): string
	{
	local text = "";
	local separator = "";

	for ( i in elements )
		{
		text = text + separator + text_of(elements[i]);
		separator = ",";
		}

	return text;
	}

# A value as a log would have it, see above.
function text_of(value: any): string
	{
	local kind = type_name(value);

	if ( kind == "time" || kind == "interval" )
		return fmt("%.6f", value);
	if ( kind == "port" )
		return port_text(value);
	if ( /^set/ in kind )
		return set_text(value);
	if ( /^vector/ in kind )
		return vector_text(value);

	return fmt("%s", value);
	}

# Appends the logged columns of a record; those of a record in it get its name and a dot in front.
function append_pairs(pairs: Pairs, prefix: string, rec: any)
	{
	local columns = record_fields(rec);

	for ( column in columns )
		{
		if ( ! columns[column]$log || ! columns[column]?$value )
			next;

		local kind = type_name(columns[column]$value);

		if ( prefix == "" && (column == "uid" || (column == "ts" && kind == "time")) )
			next;

		if ( /^record/ in kind )
			append_pairs(pairs, prefix + column + ".", columns[column]$value);
		else
			{
			pairs$extra_fields[|pairs$extra_fields|] = prefix + column;
			pairs$extra_vals[|pairs$extra_vals|] = text_of(columns[column]$value);
			}
		}
	}

function write_pairs(path: string, ts: time, rec: any)
	{
	local columns = record_fields(rec);
	local pairs: Pairs = [$ts=ts, $uid="", $extra_fields=vector("_path"), $extra_vals=vector(path)];

	append_pairs(pairs, "", rec);

	if ( "uid" in columns && columns["uid"]?$value )
		{
		pairs$uid = text_of(columns["uid"]$value);
		Log::write(LogZMQ::PAIRS_LOG, pairs);
		}
	else
		Log::write(LogZMQ::PAIRS_WITHOUT_UID_LOG, [$ts=ts, $extra_fields=pairs$extra_fields,
		                                           $extra_vals=pairs$extra_vals]);
	}

function take_pairs(id: Log::ID, path: string, rec: any): string
	{
	local columns = record_fields(rec);

	if ( path == "reporter" )
		return path;

	# The writer's column takes a time only: a value of another type would end the writer.
	if ( "ts" in columns && columns["ts"]?$value && type_name(columns["ts"]$value) == "time" )
		write_pairs(path, columns["ts"]$value, rec);
	else
		write_pairs(path, network_time(), rec);

	return path;
	}

function send_active_streams()
	{
	for ( stream in Log::active_streams )
		{
		if ( stream in own_streams || stream in not_as_pairs )
			next;

		if ( fmt("%s", stream) == "Reporter::LOG" )
			next;

		take_records(stream, take_pairs);
		}
	}

event bro_init() &priority=5
	{
	Log::create_stream(LogZMQ::PAIRS_LOG, [$columns=Pairs, $path="pairs"]);
	send_by_zmq(LogZMQ::PAIRS_LOG, "pairs");
	Log::create_stream(LogZMQ::PAIRS_WITHOUT_UID_LOG,
	                   [$columns=PairsWithoutUID, $path="pairs_without_uid"]);
	send_by_zmq(LogZMQ::PAIRS_WITHOUT_UID_LOG, "pairs_without_uid");
	}

# Right after the streams were made, for records that are written while the host starts ...
event bro_init() &priority=4
	{
	send_active_streams();
	}

# ... and again for streams that the site's scripts make later.
event bro_init() &priority=-10
	{
	send_active_streams();
	}
