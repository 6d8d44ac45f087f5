// Many agents in one process: so many connections that the plug-in's worker opens, with its socket
// options and a key of its own for each, used by one thread.
//
//     Fleet AGENTS ENDPOINT PUBLIC_KEY
//
// Talks in lines over standard input and output, until its input ends:
//
//     (at the start)  -> opened
//     each N          -> sent SECONDS T5 T95      once each agent has handed N events to libzmq
//     room N          -> given                    standing connections get N as high-water mark
//
// Agents take turns. libzmq takes an event only when the connection stands, so T5 and T95 tell
// when: seconds since the command after which 5 and 95 of 100 agents had handed over their first
// event.
//
// The plug-in's high-water mark is 1, so that each event takes a system call or more. With more,
// libzmq writes many at once, and feeding a collector leaves it more of the processors.

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <numeric>
#include <string>
#include <vector>

#include "Agent.h"
#include "SampleRecords.h"
#include "System.h"
#include "ZmqWorker.h"

namespace {

using bench::give_up;

constexpr auto kPatience = std::chrono::seconds(60);

class Fleet {
 public:
  Fleet(std::size_t agents, const std::string& endpoint, const std::string& public_key)
      : messages_(bench::messages(agents)) {
    bench::allow_many_descriptors();
    worker_.Init(endpoint, public_key, "");
    worker_.context = zmq_ctx_new();
    zmq_ctx_set(worker_.context, ZMQ_MAX_SOCKETS, static_cast<int>(agents) + 8);
    for (std::size_t i = 0; i < agents; ++i) {
      sockets_.push_back(worker_.Connect(endpoint));
      if (!sockets_.back())
        give_up("cannot open a connection");
    }
    surroundings_.check();
  }

  void give_room(int high_water) {
    for (void* socket : sockets_)
      zmq_setsockopt(socket, ZMQ_SNDHWM, &high_water, sizeof high_water);
  }

  /// The line of what "each" answers.
  std::string each(std::uint64_t events) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const auto so_far = [&] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
    std::vector<std::uint64_t> left(sockets_.size(), events);
    std::vector<std::size_t> active(sockets_.size());
    std::iota(active.begin(), active.end(), 0);
    std::vector<double> first;
    auto patience = begin + kPatience;
    while (!active.empty()) {
      std::size_t kept = 0;
      bool any = false;
      for (const std::size_t agent : active) {
        const std::string& message = messages_[agent];
        if (zmq_send(sockets_[agent], message.data(), message.size(), ZMQ_DONTWAIT) >= 0) {
          any = true;
          if (left[agent] == events)
            first.push_back(so_far());
          if (--left[agent] == 0)
            continue;
        }
        active[kept++] = agent;
      }
      active.resize(kept);
      if (any)
        patience = Clock::now() + kPatience;
      else if (Clock::now() > patience)
        give_up("nothing is taken");
      else
        usleep(100);
    }
    const auto at = [&](std::size_t percent) { return first[(first.size() - 1) * percent / 100]; };
    char line[128];
    std::snprintf(line, sizeof line, "sent %.6f %.6f %.6f\n", so_far(), at(5), at(95));
    return line;
  }

 private:
  const bench::AgentSurroundings surroundings_;
  logging::writer::ZmqWorker& worker_ = *new logging::writer::ZmqWorker();
  const std::vector<std::string> messages_;
  std::vector<void*> sockets_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: Fleet AGENTS ENDPOINT PUBLIC_KEY\n");
    return 2;
  }
  // The worker prints to standard output too.
  FILE* const answers = fdopen(dup(STDOUT_FILENO), "w");
  dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
  const auto answer = [answers](const std::string& line) {
    std::fputs(line.c_str(), answers);
    std::fflush(answers);
  };
  {
    Fleet fleet(std::strtoul(argv[1], nullptr, 10), argv[2], argv[3]);
    answer("opened\n");
    std::string command;
    std::uint64_t number;
    while (std::cin >> command >> number) {
      if (command == "room") {
        fleet.give_room(static_cast<int>(number));
        answer("given\n");
      } else {
        answer(fleet.each(number));
      }
    }
  }
  std::_Exit(0);
}
