#include "TcpPcbList.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp_var.h>
#include <stdint.h>
#include <string.h>

#include "TcpSockets.h"

namespace platform {

namespace {

constexpr size_t kRoomForNewSockets = 64;

/// Writes the list into the caller's buffer.
class ListWriter : public TcpSocketSink {
 public:
  ListWriter(char* buffer, size_t size) : buffer_(buffer), size_(size) {}

  bool begin() { return append_generation(0); }

  bool add(const TcpSocket& socket) override {
    struct xtcpcb record;
    memset(&record, 0, sizeof record);
    record.xt_len = sizeof record;
    record.xt_inp.inp_gencnt = ++count_;
    record.xt_inp.inp_lport = socket.local_port;
    record.xt_inp.inp_fport = socket.foreign_port;
    record.xt_inp.inp_ip_p = IPPROTO_TCP;
    if (socket.is_v6) {
      record.xt_inp.inp_vflag = INP_IPV6;
      memcpy(&record.xt_inp.inp_dependladdr, socket.local, sizeof socket.local);
      memcpy(&record.xt_inp.inp_dependfaddr, socket.foreign, sizeof socket.foreign);
    } else {
      record.xt_inp.inp_vflag = INP_IPV4;
      record.xt_inp.inp_dependladdr.inp46_local.ia46_addr4.s_addr = socket.local[0];
      record.xt_inp.inp_dependfaddr.inp46_foreign.ia46_addr4.s_addr = socket.foreign[0];
    }
    record.xt_socket.xso_len = sizeof record.xt_socket;
    record.xt_socket.so_type = SOCK_STREAM;
    record.xt_socket.xso_protocol = IPPROTO_TCP;
    record.xt_socket.xso_family = socket.is_v6 ? AF_INET6 : AF_INET;
    record.xt_socket.xso_so = socket.inode;
    record.xt_socket.so_pcb = socket.inode;
    return append_bytes(&record, sizeof record);
  }

  /// Writes the trailer, and the header again: now the count is known.
  bool end() {
    if (!append_generation(count_))
      return false;
    memcpy(buffer_, buffer_ + used_ - sizeof(struct xinpgen), sizeof(struct xinpgen));
    return true;
  }

  size_t used() const { return used_; }

 private:
  bool append_generation(uint32_t count) {
    struct xinpgen generation;
    memset(&generation, 0, sizeof generation);
    generation.xig_len = sizeof generation;
    generation.xig_count = count;
    generation.xig_gen = count;
    generation.xig_sogen = count;
    return append_bytes(&generation, sizeof generation);
  }

  bool append_bytes(const void* bytes, size_t length) {
    if (size_ - used_ < length)
      return false;
    memcpy(buffer_ + used_, bytes, length);
    used_ += length;
    return true;
  }

  char* buffer_;
  size_t size_;
  size_t used_ = 0;
  uint32_t count_ = 0;
};

/// Writes the list with one of the two functions that read sockets.
int write_list(int (*read_sockets)(TcpSocketSink*), char* buffer, size_t size, size_t* written) {
  ListWriter list(buffer, size);
  if (!list.begin())
    return ENOMEM;
  int error = read_sockets(&list);
  if (error == 0 && !list.end())
    error = ENOMEM;
  *written = list.used();
  return error;
}

}  // namespace

size_t tcp_pcb_list_size() {
  const size_t count = count_tcp_sockets();
  return 2 * sizeof(struct xinpgen) +
         (count + count / 8 + kRoomForNewSockets) * sizeof(struct xtcpcb);
}

int write_tcp_pcb_list(char* buffer, size_t size, size_t* written) {
  const int error = write_list(read_tcp_sockets_by_netlink, buffer, size, written);
  if (error == 0 || error == ENOMEM)
    return error;
  return write_list(read_tcp_sockets_from_proc, buffer, size, written);
}

}  // namespace platform
