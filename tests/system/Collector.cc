// A collecting server for the delivery tests: binds a PULL socket and notes what it receives.
//
//     delivery_collector ENDPOINT FILE SECRET   CURVE server with the given secret key
//     delivery_collector ENDPOINT FILE new      CURVE server with a key pair of its own
//     delivery_collector ENDPOINT FILE null     no security: takes whatever comes in the clear
//
// Says "key PUBLIC SECRET" (64 hexadecimal digits each) unless without security, then "bound
// ENDPOINT" on standard output. FILE gets one line for each message, at once: the text up to the
// first blank, "(empty)" for a message without bytes, "(multipart)" for anything but a
// single-part message. SIGTERM ends it once nothing has come for a second.
#include <zmq.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

volatile std::sig_atomic_t asked_to_end = 0;

[[noreturn]] void give_up(const char* what) {
  std::fprintf(stderr, "delivery_collector: %s: %s\n", what, zmq_strerror(zmq_errno()));
  std::exit(1);
}

std::string hex(const std::uint8_t* bytes, std::size_t size) {
  std::string text;
  char digits[3];
  for (std::size_t i = 0; i < size; ++i) {
    std::snprintf(digits, sizeof digits, "%02X", bytes[i]);
    text += digits;
  }
  return text;
}

void secure(void* socket, const std::string& secret) {
  std::uint8_t secret_key[32];
  if (secret == "new") {
    char z85_public[41];
    char z85_secret[41];
    if (zmq_curve_keypair(z85_public, z85_secret) != 0)
      give_up("no key pair");
    zmq_z85_decode(secret_key, z85_secret);
  } else {
    for (std::size_t i = 0; i < sizeof secret_key; ++i)
      secret_key[i] = static_cast<std::uint8_t>(std::stoul(secret.substr(2 * i, 2), nullptr, 16));
  }
  char z85_secret[41];
  char z85_public[41];
  std::uint8_t public_key[32];
  zmq_z85_encode(z85_secret, secret_key, sizeof secret_key);
  if (zmq_curve_public(z85_public, z85_secret) != 0)
    give_up("no public key");
  zmq_z85_decode(public_key, z85_public);
  std::printf("key %s %s\n", hex(public_key, 32).c_str(), hex(secret_key, 32).c_str());
  const int yes = 1;
  zmq_setsockopt(socket, ZMQ_CURVE_SERVER, &yes, sizeof yes);
  if (zmq_setsockopt(socket, ZMQ_CURVE_SECRETKEY, secret_key, sizeof secret_key) != 0)
    give_up("the secret key was refused");
}

void note(std::FILE* file, zmq_msg_t* msg, bool single_part) {
  const std::string body(static_cast<const char*>(zmq_msg_data(msg)), zmq_msg_size(msg));
  const std::string text = !single_part   ? "(multipart)"
                           : body.empty() ? "(empty)"
                                          : body.substr(0, body.find(' '));
  std::fprintf(file, "%s\n", text.c_str());
  std::fflush(file);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: delivery_collector ENDPOINT FILE SECRET|new|null\n");
    return 2;
  }
  const std::string secret = argv[3];
  std::FILE* const file = std::fopen(argv[2], "a");
  if (!file) {
    std::perror(argv[2]);
    return 1;
  }
  std::signal(SIGTERM, [](int) { asked_to_end = 1; });

  void* const context = zmq_ctx_new();
  void* const socket = zmq_socket(context, ZMQ_PULL);
  if (!socket)
    give_up("no socket");
  if (secret != "null")
    secure(socket, secret);
  const int patience_ms = 1000;
  zmq_setsockopt(socket, ZMQ_RCVTIMEO, &patience_ms, sizeof patience_ms);
  if (zmq_bind(socket, argv[1]) != 0)
    give_up(argv[1]);
  char endpoint[256];
  std::size_t length = sizeof endpoint;
  zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &length);
  std::printf("bound %s\n", endpoint);
  std::fflush(stdout);

  bool single_part = true;
  for (;;) {
    zmq_msg_t msg;
    zmq_msg_init(&msg);
    if (zmq_msg_recv(&msg, socket, 0) >= 0) {
      single_part = single_part && !zmq_msg_more(&msg);
      note(file, &msg, single_part);
      single_part = !zmq_msg_more(&msg);
    } else if (zmq_errno() == EAGAIN && asked_to_end) {  // the signal itself interrupts a receive
      break;
    }
    zmq_msg_close(&msg);
  }
  zmq_close(socket);
  zmq_ctx_destroy(context);
  return std::fclose(file) == 0 ? 0 : 1;
}
