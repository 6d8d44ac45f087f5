#include "FakeZmq.h"

#include <zmq.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "CallLog.h"

namespace {

constexpr std::uint64_t kOpen = 0x6f70656e6d736721;
constexpr std::uint64_t kClosed = 0x636c6f7365642121;

struct Content {
  void* data;
  std::size_t size;
  zmq_free_fn* release;
  void* hint;
};

/// What the fake keeps in a zmq_msg_t: like the real one it may be copied bit by bit.
struct Handle {
  std::uint64_t magic;
  std::uint64_t content;  // 0: none
};
static_assert(sizeof(Handle) <= sizeof(zmq_msg_t), "a handle must fit into the message object");

struct Socket {
  std::string name;
  std::string endpoint;
  bool open = true;
};

struct Context {
  bool open = true;
};

struct World {
  std::mutex mutex;
  test::FakeZmq* hooks = nullptr;
  std::vector<std::unique_ptr<Socket>> sockets;
  std::vector<std::unique_ptr<Context>> contexts;
  std::map<std::uint64_t, Content> contents;
  std::uint64_t last_content = 0;
  std::vector<test::FakeZmq::Option> options;
  std::vector<const void*> adopted;
  std::vector<std::string> misuse;
  int key_pairs = 0;
};

World& world() {
  static World instance;
  return instance;
}

using Lock = std::lock_guard<std::mutex>;

void log(const std::string& line) {
  test::CallLog::instance().add(line);
}

test::FakeZmq& hooks() {
  Lock lock(world().mutex);
  if (!world().hooks)
    std::abort();  // libzmq called outside of the life of a FakeZmq
  return *world().hooks;
}

void blame(const std::string& what) {
  Lock lock(world().mutex);
  world().misuse.push_back(what);
}

std::string name_of(void* socket) {
  return socket ? static_cast<Socket*>(socket)->name : "null";
}

/// Whether a call on the socket can go on.
bool usable(void* socket, const char* call) {
  if (socket && static_cast<Socket*>(socket)->open)
    return true;
  if (socket)
    blame(std::string(call) + " on closed socket " + name_of(socket));
  errno = ENOTSOCK;
  return false;
}

Handle get(const zmq_msg_t* msg) {
  Handle handle;
  std::memcpy(&handle, msg, sizeof handle);
  return handle;
}

void set(zmq_msg_t* msg, Handle handle) {
  std::memcpy(msg, &handle, sizeof handle);
}

bool initialised(const zmq_msg_t* msg, const char* call) {
  if (get(msg).magic == kOpen)
    return true;
  blame(std::string(call) + " of a message that is not initialised");
  errno = EFAULT;
  return false;
}

void set_content(zmq_msg_t* msg, const Content& content) {
  Lock lock(world().mutex);
  const std::uint64_t id = ++world().last_content;
  world().contents[id] = content;
  set(msg, {kOpen, id});
}

/// Gives back what the message owns, as closing and sending do. False when it was given back
/// before.
bool release_content(std::uint64_t id) {
  if (id == 0)
    return true;
  Content content;
  {
    Lock lock(world().mutex);
    const auto found = world().contents.find(id);
    if (found == world().contents.end())
      return false;
    content = found->second;
    world().contents.erase(found);
  }
  if (content.release)
    content.release(content.data, content.hint);
  else
    std::free(content.data);
  return true;
}

/// Copy of the bytes, so that a body that was freed too early is read where sanitizers see it.
std::string body_of(const zmq_msg_t* msg) {
  Lock lock(world().mutex);
  const auto found = world().contents.find(get(msg).content);
  if (found == world().contents.end() || found->second.size == 0)
    return "";
  return std::string(static_cast<const char*>(found->second.data), found->second.size);
}

int fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

namespace test {

FakeZmq::FakeZmq() {
  World& w = world();
  Lock lock(w.mutex);
  if (w.hooks)
    std::abort();  // one at a time
  w.hooks = this;
  w.sockets.clear();
  w.contexts.clear();
  w.contents.clear();
  w.options.clear();
  w.adopted.clear();
  w.misuse.clear();
  w.key_pairs = 0;
}

FakeZmq::~FakeZmq() {
  Lock lock(world().mutex);
  world().hooks = nullptr;
}

std::vector<FakeZmq::Option> FakeZmq::options() const {
  Lock lock(world().mutex);
  return world().options;
}

std::vector<std::string> FakeZmq::misuse() const {
  Lock lock(world().mutex);
  return world().misuse;
}

std::size_t FakeZmq::live_contents() const {
  Lock lock(world().mutex);
  return world().contents.size();
}

std::vector<const void*> FakeZmq::adopted() const {
  Lock lock(world().mutex);
  return world().adopted;
}

std::vector<std::string> FakeZmq::open_sockets() const {
  std::vector<std::string> names;
  Lock lock(world().mutex);
  for (const auto& socket : world().sockets)
    if (socket->open)
      names.push_back(socket->name);
  return names;
}

}  // namespace test

extern "C" {

// -- Library, context -----------------------------------------------------------------------------

void* zmq_ctx_new(void) {
  const bool ok = !hooks().on_ctx_new || hooks().on_ctx_new();
  log(ok ? "ctx_new" : "ctx_new failed");
  if (!ok) {
    errno = EMFILE;
    return nullptr;
  }
  Lock lock(world().mutex);
  world().contexts.push_back(std::make_unique<Context>());
  return world().contexts.back().get();
}

int zmq_ctx_destroy(void* context) {
  log("ctx_destroy");
  Context* ended = static_cast<Context*>(context);
  if (!ended || !ended->open) {
    blame("a context was ended that is none");
    return fail(EFAULT);
  }
  ended->open = false;
  // The real one would wait for ever.
  for (const std::string& name : hooks().open_sockets())
    blame("the context was ended before socket " + name + " was closed");
  return 0;
}

int zmq_curve_keypair(char* z85_public_key, char* z85_secret_key) {
  int number;
  {
    Lock lock(world().mutex);
    number = ++world().key_pairs;
  }
  log(".curve_keypair");
  if (hooks().on_curve_keypair && !hooks().on_curve_keypair())
    return fail(ENOTSUP);
  const auto fill = [number](char* key, char letter) {
    const std::string digits = std::to_string(number);
    std::memset(key, letter, 40);
    std::memcpy(key, digits.data(), digits.size());
    key[40] = '\0';
  };
  fill(z85_public_key, 'P');
  fill(z85_secret_key, 'S');
  return 0;
}

// -- Sockets --------------------------------------------------------------------------------------

void* zmq_socket(void* context, int type) {
  const bool ok = context && (!hooks().on_socket || hooks().on_socket());
  if (type != ZMQ_PUSH)
    blame("a socket of type " + std::to_string(type));
  if (!ok) {
    log("socket failed");
    errno = context ? EMFILE : EFAULT;
    return nullptr;
  }
  Socket* socket;
  {
    Lock lock(world().mutex);
    world().sockets.push_back(std::make_unique<Socket>());
    socket = world().sockets.back().get();
    socket->name = "s" + std::to_string(world().sockets.size());
  }
  log("socket " + socket->name);
  return socket;
}

int zmq_close(void* socket) {
  log("close " + name_of(socket));
  if (!usable(socket, "close"))
    return -1;
  Lock lock(world().mutex);
  static_cast<Socket*>(socket)->open = false;
  return 0;
}

int zmq_setsockopt(void* socket, int option, const void* value, std::size_t length) {
  log(".setsockopt " + name_of(socket) + " " + std::to_string(option) + " length " +
      std::to_string(length));
  if (!usable(socket, "setsockopt"))
    return -1;
  if (hooks().on_setsockopt && !hooks().on_setsockopt(option))
    return fail(EINVAL);
  Lock lock(world().mutex);
  world().options.push_back(
      {name_of(socket), option, std::string(static_cast<const char*>(value), length)});
  return 0;
}

int zmq_getsockopt(void* socket, int option, void* value, std::size_t* length) {
  log(".getsockopt " + name_of(socket) + " " + std::to_string(option));
  if (!usable(socket, "getsockopt"))
    return -1;
  if (option != ZMQ_EVENTS || *length < sizeof(int))
    return fail(EINVAL);
  const int events = hooks().on_events ? hooks().on_events() : ZMQ_POLLOUT;
  if (events < 0)
    return fail(ETERM);
  std::memcpy(value, &events, sizeof events);
  *length = sizeof events;
  return 0;
}

int zmq_connect(void* socket, const char* endpoint) {
  const bool ok = !hooks().on_connect || hooks().on_connect(endpoint);
  log("connect " + name_of(socket) + " " + endpoint + (ok ? " ok" : " failed"));
  if (!usable(socket, "connect"))
    return -1;
  Lock lock(world().mutex);
  static_cast<Socket*>(socket)->endpoint = endpoint;
  return ok ? 0 : fail(EINVAL);
}

int zmq_disconnect(void* socket, const char* endpoint) {
  log("disconnect " + name_of(socket) + " " + endpoint);
  if (!usable(socket, "disconnect"))
    return -1;
  if (static_cast<Socket*>(socket)->endpoint != endpoint) {
    blame("disconnect of " + name_of(socket) + " from " + endpoint + ", which it is not on");
    return fail(ENOENT);
  }
  return 0;
}

// -- Messages -------------------------------------------------------------------------------------

int zmq_msg_init_size(zmq_msg_t* msg, std::size_t size) {
  log(".msg_init_size " + std::to_string(size));
  if (hooks().on_init_size && !hooks().on_init_size(size)) {
    set(msg, {kClosed, 0});
    return fail(ENOMEM);
  }
  set_content(msg, {std::malloc(size + 1), size, nullptr, nullptr});
  return 0;
}

int zmq_msg_init_data(zmq_msg_t* msg, void* data, std::size_t size, zmq_free_fn* release,
                      void* hint) {
  log(".msg_init_data " + std::to_string(size));
  if (!release || hint)
    blame("msg_init_data without a release function, or with a hint");
  if (hooks().on_init_data && !hooks().on_init_data(size)) {
    set(msg, {kClosed, 0});
    return fail(ENOMEM);
  }
  {
    Lock lock(world().mutex);
    world().adopted.push_back(data);
  }
  set_content(msg, {data, size, release, hint});
  return 0;
}

int zmq_msg_close(zmq_msg_t* msg) {
  log(".msg_close");
  if (!initialised(msg, "close"))
    return -1;
  if (!release_content(get(msg).content))
    blame("a message was closed twice");
  set(msg, {kClosed, 0});
  return 0;
}

int zmq_sendmsg(void* socket, zmq_msg_t* msg, int flags) {
  if (flags != 0)
    blame("a send with flags " + std::to_string(flags));
  const bool valid = initialised(msg, "send");
  const std::string body = valid ? body_of(msg) : "";
  bool ok = valid && usable(socket, "send");
  if (ok && hooks().on_send)
    ok = hooks().on_send(static_cast<Socket*>(socket)->endpoint, body);
  if (ok) {
    // As the real one: the content is the library's now, and the message is empty.
    release_content(get(msg).content);
    set(msg, {kOpen, 0});
  } else {
    errno = EAGAIN;
  }
  const int error = errno;
  log("send " + name_of(socket) + " '" + body + "'" + (ok ? " ok" : " failed"));
  errno = error;
  return ok ? static_cast<int>(body.size()) : -1;
}
}
