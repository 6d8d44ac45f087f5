// Darwin's <sys/socketvar.h>: a socket as the lists of the sysctl tree tell it. The kernel's
// pointers travel as 32-bit handles. Written with fixed-width types only, so that it also serves a
// Darwin build whose SDK has no such header.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>

#pragma pack(push, 4)

typedef uint64_t so_gen_t;

struct xsocket {
  uint32_t xso_len;
  uint32_t xso_so;
  int16_t so_type;
  int16_t so_options;
  int16_t so_linger;
  int16_t so_state;
  uint32_t so_pcb;  ///< handle of the control block: its low 32 bits
  int32_t xso_protocol;
  int32_t xso_family;
  uint32_t so_unread[18];
};

#pragma pack(pop)

#ifdef __cplusplus
static_assert(offsetof(struct xsocket, so_pcb) == 16, "handle");
static_assert(offsetof(struct xsocket, xso_protocol) == 20, "protocol");
static_assert(sizeof(struct xsocket) == 100, "socket part");
#endif
