##! Keeps log rotation off for the ZeroMQ writer. It has no file to rotate and reports no finished
##! rotation, and the host ends a process whose writer does not report one. So a filter that uses
##! the writer must have the rotation interval 0secs; a filter that has another one gets 0secs here,
##! and a message says so.

module LogZMQ;

export {
	## Names of the filters that the guard looks for in every active stream. Where the host lets
	## scripts see its table of filters, the guard looks at all of them, whatever their name;
	## elsewhere add the names that your site gives to filters of this writer.
	##
	## Example: redef LogZMQ::filter_names += { "my-filter" };
	const filter_names: set[string] = { "default", "zmq" } &redef;

	## Sets the rotation interval of one filter to 0secs if it uses the ZeroMQ writer and has another
	## one. Does nothing if the stream has no filter of that name.
	global stop_rotation: function(stream: Log::ID, filter_name: string);
}

function stop_rotation(stream: Log::ID, filter_name: string)
	{
	local filter = Log::get_filter(stream, filter_name);

	# For a name that the stream does not have, the answer is a filter of another name.
	if ( filter$name != filter_name || filter$writer != Log::WRITER_ZMQ || filter$interv == 0secs )
		return;

	local message = fmt("the ZeroMQ writer cannot rotate: filter %s of %s, interval %s set to 0secs",
	                    filter_name, stream, filter$interv);
	filter$interv = 0secs;
	Log::remove_filter(stream, filter_name);
	Log::add_filter(stream, filter);

	print message;
	event reporter_warning(network_time(), message, "");
	}

function stop_rotation_of_named_filters()
	{
	for ( stream in Log::active_streams )
		for ( filter_name in filter_names )
			stop_rotation(stream, filter_name);
	}

# Right after the streams were made, before a first record makes the host start a rotation timer ...
event bro_init() &priority=4
	{
	stop_rotation_of_named_filters();
	}

# ... and again when the site's scripts have added their filters.
event bro_init() &priority=-100
	{
	stop_rotation_of_named_filters();
	}

# The host's own table of all filters, if scripts may see it in this version.
module Log;

@ifdef ( filters )

event bro_init() &priority=-101
	{
	# A copy: setting an interval changes the table.
	local present: set[Log::ID, string] = set();

	for ( [stream, filter_name] in filters )
		add present[stream, filter_name];

	for ( [stream, filter_name] in present )
		LogZMQ::stop_rotation(stream, filter_name);
	}

@endif
