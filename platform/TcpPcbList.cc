#include "TcpPcbList.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp_var.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "ProcFile.h"

namespace platform {

namespace {

constexpr size_t kRoomForNewSockets = 64;

/// One line of /proc/net/tcp or tcp6. Address words are in network byte order as they stand.
struct Socket {
  uint32_t local[4];
  uint32_t foreign[4];
  uint16_t local_port;
  uint16_t foreign_port;
  uint32_t inode;
};

/// Reads the fields of a line one after the other.
class Fields {
 public:
  explicit Fields(const char* line) : at_(line) {}

  /// Exactly `digits` hexadecimal digits.
  uint32_t hex(int digits) {
    uint32_t value = 0;
    for (; digits > 0; --digits) {
      const int digit = hex_digit(*at_);
      if (digit < 0) {
        valid_ = false;
        return 0;
      }
      value = value << 4 | static_cast<uint32_t>(digit);
      ++at_;
    }
    return value;
  }

  void expect(char c) {
    if (*at_ == c)
      ++at_;
    else
      valid_ = false;
  }

  void skip_blanks() {
    while (*at_ == ' ')
      ++at_;
  }

  /// Skips `count` fields and the blanks around them.
  void skip(int count) {
    skip_blanks();
    for (; count > 0; --count) {
      while (*at_ != ' ' && *at_ != '\0')
        ++at_;
      skip_blanks();
    }
  }

  uint32_t decimal() {
    if (*at_ < '0' || *at_ > '9')
      valid_ = false;
    return static_cast<uint32_t>(strtoul(at_, nullptr, 10));
  }

  bool valid() const { return valid_; }

 private:
  static int hex_digit(char c) {
    if (c >= '0' && c <= '9')
      return c - '0';
    if (c >= 'A' && c <= 'F')
      return c - 'A' + 10;
    return -1;
  }

  const char* at_;
  bool valid_ = true;
};

void read_endpoint(Fields* fields, int words, uint32_t* address, uint16_t* port) {
  for (int i = 0; i < words; ++i)
    address[i] = fields->hex(8);
  fields->expect(':');
  *port = htons(static_cast<uint16_t>(fields->hex(4)));
  fields->skip_blanks();
}

/// "  sl: local:port foreign:port st tx:rx tr:when retransmits uid timeout inode ..."
bool parse_line(const char* line, int words, Socket* socket) {
  Fields fields(line);
  fields.skip(1);
  read_endpoint(&fields, words, socket->local, &socket->local_port);
  read_endpoint(&fields, words, socket->foreign, &socket->foreign_port);
  fields.skip(6);
  socket->inode = fields.decimal();
  return fields.valid();
}

bool is_v4_mapped(const uint32_t* address) {
  return address[0] == 0 && address[1] == 0 && address[2] == htonl(0xffff);
}

/// Lays the list into the caller's buffer.
class ListWriter {
 public:
  ListWriter(char* buffer, size_t size) : buffer_(buffer), size_(size) {}

  bool begin() { return append_generation(0); }

  bool append(const Socket& socket, bool is_v6) {
    struct xtcpcb record;
    memset(&record, 0, sizeof record);
    record.xt_len = sizeof record;
    record.xt_inp.inp_gencnt = ++count_;
    record.xt_inp.inp_lport = socket.local_port;
    record.xt_inp.inp_fport = socket.foreign_port;
    record.xt_inp.inp_ip_p = IPPROTO_TCP;
    if (is_v6) {
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
    record.xt_socket.xso_family = is_v6 ? AF_INET6 : AF_INET;
    record.xt_socket.xso_so = socket.inode;
    record.xt_socket.so_pcb = socket.inode;
    return append_bytes(&record, sizeof record);
  }

  /// Closes the list and completes its header, which was written before the count was known.
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

/// `words` is 1 for /proc/net/tcp, 4 for /proc/net/tcp6.
int append_sockets(const char* path, int words, ListWriter* list) {
  procfs::Lines lines(path);
  lines.next();  // the headings
  while (const char* line = lines.next()) {
    Socket socket;
    // Without an inode nobody holds it: a connection that is being accepted, or was closed and
    // waits out its time.
    if (!parse_line(line, words, &socket) || socket.inode == 0)
      continue;
    const bool is_v6 = words == 4 && !is_v4_mapped(socket.foreign);
    if (words == 4 && !is_v6) {
      socket.local[0] = socket.local[3];
      socket.foreign[0] = socket.foreign[3];
    }
    if (!list->append(socket, is_v6))
      return ENOMEM;
  }
  return lines.failed() ? errno : 0;
}

/// The kernel's own count of sockets. It costs far less than reading them all.
size_t sockets_in_use(const char* path, const char* name) {
  char text[1024];
  uint64_t count = 0;
  if (procfs::read_text(path, text, sizeof text) <= 0 || !procfs::find_number(text, name, &count))
    return 0;
  return static_cast<size_t>(count);
}

size_t v6_sockets_in_use() {
  return sockets_in_use("/proc/net/sockstat6", "TCP6: inuse");
}

}  // namespace

size_t tcp_pcb_list_size() {
  const size_t count = sockets_in_use("/proc/net/sockstat", "TCP: inuse") + v6_sockets_in_use();
  return 2 * sizeof(struct xinpgen) +
         (count + count / 8 + kRoomForNewSockets) * sizeof(struct xtcpcb);
}

int write_tcp_pcb_list(char* buffer, size_t size, size_t* written) {
  ListWriter list(buffer, size);
  if (!list.begin())
    return ENOMEM;
  int error = append_sockets("/proc/net/tcp", 1, &list);
  if (error == 0 && v6_sockets_in_use() > 0)
    error = append_sockets("/proc/net/tcp6", 4, &list);
  if (error == 0 && !list.end())
    error = ENOMEM;
  *written = list.used();
  return error;
}

}  // namespace platform
