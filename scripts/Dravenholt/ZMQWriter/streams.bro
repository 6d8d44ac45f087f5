##! What the scripts of this folder have in common: how they take the records of the host's streams,
##! and log streams that only the ZeroMQ writer gets.

module LogZMQ;

export {
	## Streams of the host that other-logs.bro leaves out because another script sends them.
	const not_as_pairs: set[Log::ID] = { } &redef;

	## Streams that these scripts have made; they are never sent as key/value pairs.
	global own_streams: set[Log::ID] = set();

	## Gives a stream of one's own to the ZeroMQ writer and to no other.
	global send_by_zmq: function(stream: Log::ID, path: string);

	## Hands every record of a stream of the host to a function while Log::write runs. The host's
	## events for written records come later: its scripts may have changed the record by then. The
	## function has to return the path that it is given, and may hand rec to a function whose
	## parameter has the record's own type. Call it in bro_init below priority 5, at which the host
	## makes its streams. Only the first call for a stream counts.
	global take_records: function(stream: Log::ID,
	                              take: function(id: Log::ID, path: string, rec: any): string);
}

# The streams whose records are taken.
global taken: set[Log::ID] = set();

function send_by_zmq(stream: Log::ID, path: string)
	{
	Log::remove_default_filter(stream);

	# No rotation: the writer has nothing to rotate, and the host would end the process for it.
	Log::add_filter(stream, [$name="zmq", $writer=Log::WRITER_ZMQ, $path=path, $interv=0secs]);
	add own_streams[stream];
	}

function take_records(stream: Log::ID,
                      take: function(id: Log::ID, path: string, rec: any): string)
	{
	if ( stream in taken )
		return;

	# The path function of a filter sees every record of the stream; this filter writes nothing.
	Log::add_filter(stream, [$name="zmq-records", $writer=Log::WRITER_NONE, $path_func=take,
	                         $interv=0secs]);
	add taken[stream];
	}
