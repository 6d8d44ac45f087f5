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

#define TCPT_NTIMERS_EXT 4

/// The TCP part of a control block, as far as the list tells it.
struct tcpcb {
  uint32_t t_segq;
  int32_t t_dupacks;
  uint32_t unused;
  int32_t t_timer[TCPT_NTIMERS_EXT];
  uint32_t t_inpcb;
  int32_t t_state;
  uint32_t t_flags;
  int32_t t_force;
  uint32_t snd_una;
  uint32_t snd_max;
  uint32_t snd_nxt;
  uint32_t snd_up;
  uint32_t snd_wl1;
  uint32_t snd_wl2;
  uint32_t iss;
  uint32_t irs;
  uint32_t rcv_nxt;
  uint32_t rcv_adv;
  uint32_t rcv_wnd;
  uint32_t rcv_up;
  uint32_t snd_wnd;
  uint32_t snd_cwnd;
  uint32_t snd_ssthresh;
  uint32_t t_maxopd;
  uint32_t t_rcvtime;
  uint32_t t_starttime;
  int32_t t_rtttime;
  uint32_t t_rtseq;
  int32_t t_rxtcur;
  uint32_t t_maxseg;
  int32_t t_srtt;
  int32_t t_rttvar;
  int32_t t_rxtshift;
  uint32_t t_rttmin;
  uint32_t t_rttupdated;
  uint32_t max_sndwnd;
  int32_t t_softerror;
  int8_t t_oobflags;
  int8_t t_iobc;
  uint8_t snd_scale;
  uint8_t rcv_scale;
  uint8_t request_r_scale;
  uint8_t requested_s_scale;
  uint32_t ts_recent;
  uint32_t ts_recent_age;
  uint32_t last_ack_sent;
  uint32_t cc_send;
  uint32_t cc_recv;
  uint32_t snd_recover;
  uint32_t snd_cwnd_prev;
  uint32_t snd_ssthresh_prev;
  uint32_t t_badrxtwin;
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
