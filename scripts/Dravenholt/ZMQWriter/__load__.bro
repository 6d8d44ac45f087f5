##! Sends everything: connections, http, ftp and smtp as records of their own kind, all other logs
##! as key/value pairs, and the figures of the host. Load single scripts of this folder for less.

@load ./connections.bro
@load ./ftp.bro
@load ./http.bro
@load ./other-logs.bro
@load ./smtp.bro
@load ./statistics.bro
