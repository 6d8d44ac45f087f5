// Darwin's <sys/proc_info.h>: the records of <libproc.h>, in Darwin's sizes. Fields that nobody
// reads are rows of words; they and what Linux does not tell are zero.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifndef MAXCOMLEN
#define MAXCOMLEN 16
#endif

/// proc_listpids
#define PROC_ALL_PIDS 1

/// proc_pidinfo
#define PROC_PIDLISTFDS 1
#define PROC_PIDTASKALLINFO 2

/// proc_pidfdinfo
#define PROC_PIDFDSOCKETINFO 3

/// proc_fdtype
#define PROX_FDTYPE_VNODE 1
#define PROX_FDTYPE_SOCKET 2
#define PROX_FDTYPE_KQUEUE 5
#define PROX_FDTYPE_PIPE 6

struct proc_fdinfo {
  int32_t proc_fd;
  uint32_t proc_fdtype;
};

struct proc_bsdinfo {
  uint32_t pbi_flags;
  uint32_t pbi_status;
  uint32_t pbi_xstatus;
  uint32_t pbi_pid;
  uint32_t pbi_ppid;
  uid_t pbi_uid;  ///< effective user id
  gid_t pbi_gid;
  uid_t pbi_ruid;
  gid_t pbi_rgid;
  uid_t pbi_svuid;
  gid_t pbi_svgid;
  uint32_t rfu_1;
  char pbi_comm[MAXCOMLEN];  ///< short command name
  char pbi_name[2 * MAXCOMLEN];
  uint32_t pbi_nfiles;
  uint32_t pbi_pgid;
  uint32_t pbi_pjobc;
  uint32_t e_tdev;
  uint32_t e_tpgid;
  int32_t pbi_nice;
  uint64_t pbi_start_tvsec;
  uint64_t pbi_start_tvusec;
};

struct proc_taskinfo {
  uint64_t pti_unread[12];
};

struct proc_taskallinfo {
  struct proc_bsdinfo pbsd;
  struct proc_taskinfo ptinfo;
};

struct proc_fileinfo {
  uint64_t fi_unread[3];
};

struct socket_info {
  uint64_t soi_stat[17];
  uint64_t soi_so;
  uint64_t soi_pcb;  ///< handle of the protocol control block
  uint64_t soi_unread[77];
};

struct socket_fdinfo {
  struct proc_fileinfo pfi;
  struct socket_info psi;
};

#ifdef __cplusplus
static_assert(sizeof(struct proc_fdinfo) == 8, "descriptor entry");
static_assert(sizeof(struct proc_bsdinfo) == 136, "process part");
static_assert(sizeof(struct proc_taskallinfo) == 232, "task information");
static_assert(offsetof(struct socket_fdinfo, psi.soi_pcb) == 168, "handle");
static_assert(sizeof(struct socket_fdinfo) == 792, "socket information");
#endif
