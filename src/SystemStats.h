// How this host is: load, priority of the host process, memory and disk.
//
// Every call samples afresh. A figure that cannot be read does not keep the others back: the load
// average becomes -1.0, everything else 0; nothing is reported.
// Threads: getStats makes host values and remembers the record type in a plain pointer, so it
// belongs to the host's main thread. getCpuUsage may be called from any thread.
#pragma once

class RecordVal;

class SystemStats {
 public:
  /// A new record of the script type `system_stats` with all nine fields set, owned by the caller:
  /// cpu_usage, priority, ph_mem_total, ph_mem_used, virt_mem_total, virt_mem_used (MiB),
  /// hdd_volume, hdd_used, hdd_avail (GiB).
  static RecordVal* getStats();
};

/// The 1-minute load average as the kernel reports it (not a percentage), or -1.0 when it cannot
/// be read.
double getCpuUsage();
