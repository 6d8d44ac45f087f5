##! The options of the ZeroMQ log writer. Change them with ``redef`` in your site scripts, or with a
##! word such as LogZMQ::zmq_primary_server=collector.example.net on the command line. They are read
##! once, when the host starts.

@load ./rotation-guard.bro

module LogZMQ;

export {
	## The server that gets the events, as host, host:port or a ZeroMQ endpoint. Without a scheme it
	## is tcp://, without a port 5555. The key zmq.server of the host's settings file wins over it.
	##
	## Example: "collector.example.net:5555"
	const zmq_primary_server = "" &redef;

	## Servers to try, in this order, while the primary one does not answer: a list with commas, each
	## in the form of zmq_primary_server. Empty for none. The key zmq.secondary_servers of the host's
	## settings file wins over it.
	##
	## Example: "standby1.example.net, standby2.example.net:5556"
	const zmq_secondary_server = "" &redef;

	## The public CURVE key of the servers: 64 hexadecimal digits, letters in upper case. The key
	## zmq.public_key of the host's settings file wins over it.
	##
	## Example: "0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF"
	const zmq_public_key = "" &redef;

	## The name of this monitoring agent in every event. Empty: the content of the agent-id file, which
	## is made with a new random name if it does not exist. "-": no name, on purpose.
	##
	## Example: "agent-7"
	const zmq_agent_id = "" &redef;

	## Text between the elements of sets and vectors.
	##
	## Example: ","
	const set_separator = "," &redef;

	## Text for an empty set, vector or string.
	##
	## Example: "(empty)"
	const empty_field = "(empty)" &redef;

	## Text for a field without a value.
	##
	## Example: "-"
	const unset_field = "-" &redef;
}
