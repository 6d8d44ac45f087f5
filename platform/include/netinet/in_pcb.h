// Darwin's <netinet/in_pcb.h>: protocol control blocks as the sysctl "net.inet.tcp.pcblist" lists
// them. The kernel's pointers travel as 32-bit handles. Written with fixed-width types only, so
// that it also serves a Darwin build whose SDK has no such header.
#pragma once

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socketvar.h>
#include <sys/types.h>

#pragma pack(push, 4)

typedef uint64_t inp_gen_t;

/// inp_vflag
#define INP_IPV4 0x1
#define INP_IPV6 0x2

struct _inpcb_list_entry {
  uint32_t le_next;
  uint32_t le_prev;
};

/// An IPv4 address in the place of an IPv6 one.
struct in_addr_4in6 {
  uint32_t ia46_pad32[3];
  struct in_addr ia46_addr4;
};

struct inpcb {
  struct _inpcb_list_entry inp_hash;
  struct in_addr reserved1;
  struct in_addr reserved2;
  uint16_t inp_fport;  ///< foreign port, network byte order
  uint16_t inp_lport;  ///< local port, network byte order
  struct _inpcb_list_entry inp_list;
  uint32_t inp_ppcb;
  uint32_t inp_pcbinfo;
  uint32_t inp_socket;
  uint8_t nat_owner;
  uint32_t nat_cookie;
  struct _inpcb_list_entry inp_portlist;
  uint32_t inp_phd;
  inp_gen_t inp_gencnt;  ///< generation of this block
  int32_t inp_flags;
  uint32_t inp_flow;
  uint8_t inp_vflag;  ///< INP_IPV4, INP_IPV6
  uint8_t inp_ip_ttl;
  uint8_t inp_ip_p;
  union {
    struct in_addr_4in6 inp46_foreign;
    struct in6_addr inp6_foreign;
  } inp_dependfaddr;
  union {
    struct in_addr_4in6 inp46_local;
    struct in6_addr inp6_local;
  } inp_dependladdr;
  uint32_t inp_unread[24];
};

/// Opens and closes the list.
struct xinpgen {
  uint32_t xig_len;    ///< length of this structure
  uint32_t xig_count;  ///< number of control blocks in the list
  inp_gen_t xig_gen;   ///< generation of the list
  so_gen_t xig_sogen;
};

#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(struct xinpgen) == 24, "the list's header and trailer");
static_assert(offsetof(struct inpcb, inp_fport) == 16, "foreign port");
static_assert(offsetof(struct inpcb, inp_gencnt) == 60, "generation");
static_assert(offsetof(struct inpcb, inp_vflag) == 76, "address family flags");
static_assert(offsetof(struct inpcb, inp_dependfaddr) == 80, "foreign address");
static_assert(offsetof(struct inpcb, inp_dependladdr) == 96, "local address");
static_assert(sizeof(struct inpcb) == 208, "control block");
#endif
