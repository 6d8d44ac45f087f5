// Darwin's <sys/proc_info.h>: the records of <libproc.h>. What Linux does not tell stays zero.
#pragma once

#include <net/if.h>
#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>
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
#define PROX_FDTYPE_ATALK 0
#define PROX_FDTYPE_VNODE 1
#define PROX_FDTYPE_SOCKET 2
#define PROX_FDTYPE_PSHM 3
#define PROX_FDTYPE_PSEM 4
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
  uint64_t pti_virtual_size;
  uint64_t pti_resident_size;
  uint64_t pti_total_user;
  uint64_t pti_total_system;
  uint64_t pti_threads_user;
  uint64_t pti_threads_system;
  int32_t pti_policy;
  int32_t pti_faults;
  int32_t pti_pageins;
  int32_t pti_cow_faults;
  int32_t pti_messages_sent;
  int32_t pti_messages_received;
  int32_t pti_syscalls_mach;
  int32_t pti_syscalls_unix;
  int32_t pti_csw;
  int32_t pti_threadnum;
  int32_t pti_numrunning;
  int32_t pti_priority;
};

struct proc_taskallinfo {
  struct proc_bsdinfo pbsd;
  struct proc_taskinfo ptinfo;
};

struct proc_fileinfo {
  uint32_t fi_openflags;
  uint32_t fi_status;
  int64_t fi_offset;
  int32_t fi_type;
  uint32_t fi_guardflags;
};

struct vinfo_stat {
  uint32_t vst_dev;
  uint16_t vst_mode;
  uint16_t vst_nlink;
  uint64_t vst_ino;
  uid_t vst_uid;
  gid_t vst_gid;
  int64_t vst_atime;
  int64_t vst_atimensec;
  int64_t vst_mtime;
  int64_t vst_mtimensec;
  int64_t vst_ctime;
  int64_t vst_ctimensec;
  int64_t vst_birthtime;
  int64_t vst_birthtimensec;
  int64_t vst_size;
  int64_t vst_blocks;
  int32_t vst_blksize;
  uint32_t vst_flags;
  uint32_t vst_gen;
  uint32_t vst_rdev;
  int64_t vst_qspare[2];
};

struct sockbuf_info {
  uint32_t sbi_cc;
  uint32_t sbi_hiwat;
  uint32_t sbi_mbcnt;
  uint32_t sbi_mbmax;
  uint32_t sbi_lowat;
  int16_t sbi_flags;
  int16_t sbi_timeo;
};

struct in4in6_addr {
  uint32_t i46a_pad32[3];
  struct in_addr i46a_addr4;
};

struct in_sockinfo {
  int insi_fport;
  int insi_lport;
  uint64_t insi_gencnt;
  uint32_t insi_flags;
  uint32_t insi_flow;
  uint8_t insi_vflag;
  uint8_t insi_ip_ttl;
  uint32_t rfu_1;
  union {
    struct in4in6_addr ina_46;
    struct in6_addr ina_6;
  } insi_faddr;
  union {
    struct in4in6_addr ina_46;
    struct in6_addr ina_6;
  } insi_laddr;
  struct {
    uint8_t in4_tos;
  } insi_v4;
  struct {
    uint8_t in6_hlim;
    int in6_cksum;
    uint16_t in6_ifindex;
    int16_t in6_hops;
  } insi_v6;
};

#define TSI_T_NTIMERS 4

struct tcp_sockinfo {
  struct in_sockinfo tcpsi_ini;
  int tcpsi_state;
  int tcpsi_timer[TSI_T_NTIMERS];
  int tcpsi_mss;
  uint32_t tcpsi_flags;
  uint32_t rfu_1;
  uint64_t tcpsi_tp;
};

#define SOCK_MAXADDRLEN 255

struct un_sockinfo {
  uint64_t unsi_conn_so;
  uint64_t unsi_conn_pcb;
  union {
    char ua_dummy[SOCK_MAXADDRLEN];
  } unsi_addr;
  union {
    char ua_dummy[SOCK_MAXADDRLEN];
  } unsi_caddr;
};

/// soi_kind
#define SOCKINFO_GENERIC 0
#define SOCKINFO_IN 1
#define SOCKINFO_TCP 2
#define SOCKINFO_UN 3

struct socket_info {
  struct vinfo_stat soi_stat;
  uint64_t soi_so;
  uint64_t soi_pcb;  ///< handle of the protocol control block
  int soi_type;
  int soi_protocol;
  int soi_family;
  int16_t soi_options;
  int16_t soi_linger;
  int16_t soi_state;
  int16_t soi_qlen;
  int16_t soi_incqlen;
  int16_t soi_qlimit;
  int16_t soi_timeo;
  uint16_t soi_error;
  uint32_t soi_oobmark;
  struct sockbuf_info soi_rcv;
  struct sockbuf_info soi_snd;
  int soi_kind;
  uint32_t rfu_1;
  union {
    struct in_sockinfo pri_in;
    struct tcp_sockinfo pri_tcp;
    struct un_sockinfo pri_un;
  } soi_proto;
};

struct socket_fdinfo {
  struct proc_fileinfo pfi;
  struct socket_info psi;
};

#define PROC_PIDLISTFD_SIZE (sizeof(struct proc_fdinfo))
#define PROC_PIDTASKALLINFO_SIZE (sizeof(struct proc_taskallinfo))
#define PROC_PIDFDSOCKETINFO_SIZE (sizeof(struct socket_fdinfo))

#ifdef __cplusplus
static_assert(sizeof(struct proc_fdinfo) == 8, "descriptor entry");
static_assert(sizeof(struct proc_bsdinfo) == 136, "process part");
static_assert(sizeof(struct proc_taskallinfo) == 232, "task information");
static_assert(sizeof(struct vinfo_stat) == 136, "file status");
static_assert(sizeof(struct in_sockinfo) == 80, "internet socket");
static_assert(sizeof(struct un_sockinfo) == 528, "local socket");
static_assert(sizeof(struct socket_fdinfo) == 792, "socket information");
#endif
