##! Types that the script interface of the plug-in mentions. The host reads this file before the
##! generated declarations of the functions, so these types are known there.

## Figures of the host at one moment, as :bro:id:`LogZMQ::__get_system_stats` samples them. The
## order of the fields is fixed: the plug-in fills them by position.
type system_stats: record {
	## Load average over the last minute as the kernel reports it (no percentage); -1.0 if unknown.
	cpu_usage: double &log;
	## Scheduling priority (nice value) of the host process.
	priority: int &log;
	## Installed memory in MiB.
	ph_mem_total: count &log;
	## Memory in use in MiB.
	ph_mem_used: count &log;
	## The same figure as ph_mem_total.
	virt_mem_total: count &log;
	## The same figure as ph_mem_used.
	virt_mem_used: count &log;
	## Size of the file system that holds the current folder, in GiB.
	hdd_volume: double &log;
	## Used part of it, in GiB.
	hdd_used: double &log;
	## Free part of it, in GiB, including what is reserved for the superuser.
	hdd_avail: double &log;
};
