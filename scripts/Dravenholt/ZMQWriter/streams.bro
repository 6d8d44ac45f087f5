##! What the scripts of this folder have in common: log streams that only the ZeroMQ writer gets.

module LogZMQ;

export {
	## Streams of the host that other-logs.bro leaves out because another script sends them.
	const not_as_pairs: set[Log::ID] = { } &redef;

	## Streams that these scripts have made; they are never sent as key/value pairs.
	global own_streams: set[Log::ID] = set();

	## Gives a stream of one's own to the ZeroMQ writer and to no other.
	global send_by_zmq: function(stream: Log::ID, path: string);
}

function send_by_zmq(stream: Log::ID, path: string)
	{
	Log::remove_default_filter(stream);

	# No rotation: the writer has nothing to rotate, and the host would end the process for it.
	Log::add_filter(stream, [$name="zmq", $writer=Log::WRITER_ZMQ, $path=path, $interv=0secs]);
	add own_streams[stream];
	}
