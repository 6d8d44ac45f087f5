// Darwin's <netinet/tcp_var.h>: the records of the sysctl "net.inet.tcp.pcblist". The list is a
// struct xinpgen, then one struct xtcpcb per TCP control block, each beginning with its own length,
// then a trailing struct xinpgen. Written with fixed-width types only, so that it also serves a
// Darwin build whose SDK has no such header.
#pragma once

#include <netinet/in_pcb.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socketvar.h>

#pragma pack(push, 4)

/// The TCP part of a control block, which nobody reads.
struct tcpcb {
  uint32_t t_unread[51];
};

struct xtcpcb {
  uint32_t xt_len;  ///< length of this record: the step to the next one
  struct inpcb xt_inp;
  struct tcpcb xt_tp;
  struct xsocket xt_socket;
  uint64_t xt_alignment_hack;
};

#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(struct tcpcb) == 204, "TCP part");
static_assert(offsetof(struct xtcpcb, xt_socket) == 416, "socket part");
static_assert(sizeof(struct xtcpcb) == 524, "record");
#endif
