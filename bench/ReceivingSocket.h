// A PULL socket with CURVE and a key of its own, on a port of the system's choice.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include <zmq.h>

#include "System.h"

namespace bench {

/// Any trouble, a minute without a message included, ends the program.
class ReceivingSocket {
 public:
  ReceivingSocket() {
    char secret_key[41];
    const int yes = 1;
    const int patience_ms = 60000;
    check(zmq_curve_keypair(public_key_, secret_key) == 0, "CURVE");
    zmq_setsockopt(socket_, ZMQ_CURVE_SERVER, &yes, sizeof yes);
    zmq_setsockopt(socket_, ZMQ_CURVE_SECRETKEY, secret_key, sizeof secret_key);
    zmq_setsockopt(socket_, ZMQ_RCVTIMEO, &patience_ms, sizeof patience_ms);
    check(zmq_bind(socket_, "tcp://127.0.0.1:*") == 0, "bind");
    char endpoint[256];
    std::size_t length = sizeof endpoint;
    zmq_getsockopt(socket_, ZMQ_LAST_ENDPOINT, endpoint, &length);
    endpoint_ = endpoint;
  }

  ~ReceivingSocket() {
    zmq_close(socket_);
    zmq_ctx_term(context_);
  }

  ReceivingSocket(const ReceivingSocket&) = delete;
  ReceivingSocket& operator=(const ReceivingSocket&) = delete;

  /// "ENDPOINT PUBLIC_KEY PUBLIC_KEY_Z85", the first key as 64 upper-case hexadecimal digits.
  std::string greeting() const {
    std::uint8_t bytes[32];
    zmq_z85_decode(bytes, public_key_);
    std::string text = endpoint_ + ' ';
    for (const std::uint8_t byte : bytes) {
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02X", byte);
      text += digits;
    }
    return text + ' ' + public_key_;
  }

  void close() { check(zmq_unbind(socket_, endpoint_.c_str()) == 0, "unbind"); }
  void open() { check(zmq_bind(socket_, endpoint_.c_str()) == 0, "bind"); }

  /// Gives the next message to `use`.
  template <typename Use>
  void receive(const Use& use) {
    zmq_msg_t msg;
    zmq_msg_init(&msg);
    check(zmq_msg_recv(&msg, socket_, 0) >= 0, "receive");
    use(zmq_msg_data(&msg), zmq_msg_size(&msg));
    zmq_msg_close(&msg);
  }

 private:
  static void check(bool good, const char* what) {
    if (!good)
      give_up(std::string(what) + ": " + zmq_strerror(zmq_errno()));
  }

  void* const context_ = zmq_ctx_new();
  void* const socket_ = zmq_socket(context_, ZMQ_PULL);
  char public_key_[41];
  std::string endpoint_;
};

}  // namespace bench
