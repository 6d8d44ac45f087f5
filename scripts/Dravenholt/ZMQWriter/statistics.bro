##! Sends load, memory and disk figures of this host at a fixed interval.

@load ./streams.bro

module LogZMQ;

export {
	redef enum Log::ID += { STATISTICS_LOG };

	## The time from one sample to the next.
	const statistics_interval = 1min &redef;

	## Takes and sends one sample, then waits for the next.
	global sample_statistics: event();
}

event LogZMQ::sample_statistics()
	{
	Log::write(LogZMQ::STATISTICS_LOG, LogZMQ::__get_system_stats());
	schedule statistics_interval { LogZMQ::sample_statistics() };
	}

event bro_init() &priority=5
	{
	Log::create_stream(LogZMQ::STATISTICS_LOG, [$columns=system_stats, $path="system_stats"]);
	send_by_zmq(LogZMQ::STATISTICS_LOG, "system_stats");

	# Not before the network time is known: until then a sample and the next one, which would be due
	# with the first packet, would be taken at once.
	schedule 0sec { LogZMQ::sample_statistics() };
	}
