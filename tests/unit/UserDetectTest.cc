// Who owns a socket, over a fake Darwin. Lists of control blocks are composed byte by byte. The
// probe gets a malloc of the test's own: its source is compiled here with the name replaced, after
// every header that must not see the replacement.

#include "UserDetect.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libproc.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "FakeDarwin.h"
#include "TempDir.h"

// The host's headers.
#include "Conn.h"
#include "IPAddr.h"
#include "Val.h"
#include "standin/Scripts.h"
#include "util.h"

namespace {

int allocations_left = -1;
std::vector<char> behind;  // what the memory behind a block holds

/// Memory that is full of entries for descriptor 3, a socket: what a descriptor list looks like.
void* test_malloc(std::size_t size) {
  if (allocations_left == 0)
    return nullptr;
  --allocations_left;
  char* block = static_cast<char*>(malloc(size + behind.size()));
  std::copy(behind.begin(), behind.end(), block + size);
  const proc_fdinfo entry = {3, PROX_FDTYPE_SOCKET};
  for (std::size_t i = 0; i + sizeof entry <= size; i += sizeof entry)
    std::memcpy(block + i, &entry, sizeof entry);
  return block;
}

}  // namespace

#define malloc test_malloc
#include "UserDetect.cc"
#undef malloc

namespace {

using test::FakeProcess;
using test::PcbList;
using testing::Contains;
using testing::Not;

using Names = std::pair<std::string, std::string>;

constexpr std::uint32_t kCurlHandle = 0xc0ffee01;
constexpr std::uint32_t kAlice = 501;

std::uint32_t word(const char* address) {
  return inet_addr(address);
}

class UserDetectTest : public testing::Test {
 protected:
  /// curl, of alice, has the socket 10.0.0.5:51000 -> 10.0.0.9:80.
  UserDetectTest() {
    darwin_.users[kAlice] = "alice";
    darwin_.users[0] = "root";
    darwin_.processes.emplace_back(90, "launchd", 0).socket(3, 0x1111);
    darwin_.processes.emplace_back(91, "curl", kAlice).socket(5, kCurlHandle);
    list_ = PcbList().add(curl_pcb()).end();
  }

  ~UserDetectTest() override {
    allocations_left = -1;
    behind.clear();
  }

  static PcbList::Pcb curl_pcb() {
    PcbList::Pcb pcb;
    pcb.local_address = word("10.0.0.5");
    pcb.local_port = htons(51000);
    pcb.foreign_address = word("10.0.0.9");
    pcb.foreign_port = htons(80);
    pcb.handle = kCurlHandle;
    return pcb;
  }

  FakeProcess& curl() { return darwin_.processes[1]; }

  /// What a script gets for a connection.
  Names detect(const char* orig, int orig_port, const char* resp, int resp_port) {
    darwin_.pcb_list = list_.bytes();
    ConnID id;
    id.src_addr = IPAddr(orig);
    id.dst_addr = IPAddr(resp);
    id.src_port = htons(static_cast<std::uint16_t>(orig_port));
    id.dst_port = htons(static_cast<std::uint16_t>(resp_port));
    id.is_one_way = false;
    Connection* conn = new Connection(nullptr, nullptr, 1.0, &id, 0, 0, 0, nullptr);
    const Names names = texts(UserDetect::detectUser(conn));
    Unref(conn);
    return names;
  }

  Names detect_curl() { return detect("10.0.0.5", 51000, "10.0.0.9", 80); }

  /// The pid for the two endpoints of curl's socket, out of the present list.
  std::uint32_t curl_pid() {
    darwin_.pcb_list = list_.bytes();
    return get_socket_pid(word("10.0.0.5"), htons(51000), word("10.0.0.9"), htons(80));
  }

  static Names texts(VectorVal* vector) {
    EXPECT_EQ(vector->Size(), 2u);
    const VectorVal& content = *vector;
    const Names names(text(content.Lookup(0u)), text(content.Lookup(1u)));
    Unref(vector);
    return names;
  }

  static std::string text(Val* value) {
    const BroString* string = value->AsString();
    return std::string(reinterpret_cast<const char*>(string->Bytes()),
                       static_cast<std::size_t>(string->Len()));
  }

  test::FakeDarwin darwin_;
  PcbList list_;
};

// The answer, from the connection to the two names.

TEST_F(UserDetectTest, ProcessAndUserAreNamedWhicheverEndIsTheOriginator) {
  EXPECT_EQ(detect_curl(), Names("curl", "alice"));
  EXPECT_EQ(detect("10.0.0.9", 80, "10.0.0.5", 51000), Names("curl", "alice"));
}

TEST_F(UserDetectTest, ProcessOfRootOrOfNoKnownUserHasANameAndNoUser) {
  curl().uid = 0;
  EXPECT_EQ(detect_curl(), Names("curl", ""));
  EXPECT_THAT(darwin_.calls, Not(Contains("getpwuid 0")));
  curl().uid = 777;
  EXPECT_EQ(detect_curl(), Names("curl", ""));
  EXPECT_THAT(darwin_.calls, Contains("getpwuid 777"));
}

TEST_F(UserDetectTest, WithoutAnOwnerBothNamesAreEmpty) {
  EXPECT_EQ(texts(UserDetect::detectUser(nullptr)), Names("", "")) << "no connection";
  EXPECT_THAT(darwin_.calls, testing::IsEmpty());
  EXPECT_EQ(detect("10.0.0.6", 51000, "10.0.0.9", 80), Names("", "")) << "of another host";
  curl().has_task_information = false;
  EXPECT_EQ(detect_curl(), Names("", "")) << "unreadable task information";
  list_ = PcbList().end();
  ASSERT_EQ(list_.bytes().size(), 48u);
  EXPECT_EQ(detect_curl(), Names("", "")) << "closed: only a header and a trailer";
}

TEST_F(UserDetectTest, AddressOfIPv6IsComparedByItsFirstFourBytesAMappedOneAsIPv4) {
  EXPECT_EQ(detect("::ffff:10.0.0.5", 51000, "::ffff:10.0.0.9", 80), Names("curl", "alice"));
  PcbList::Pcb pcb = curl_pcb();
  pcb.local_address = word("32.1.13.184");  // 2001:db8::
  list_ = PcbList().add(pcb).end();
  EXPECT_EQ(detect("2001:db8::5", 51000, "10.0.0.9", 80), Names("curl", "alice"));
}

TEST_F(UserDetectTest, StringVecThatIsNoVectorIsReportedByTheHost) {
  EXPECT_EXIT(
      {
        standin::define_type("string_vec", base_type(TYPE_COUNT));
        UserDetect::detectUser(nullptr);
      },
      testing::ExitedWithCode(1), "BroType::AsVectorType");
}

// The name.

TEST_F(UserDetectTest, NameThatFillsItsFieldIsCutForTheTerminator) {
  curl().name = "sixteen-letters-";
  char buffer[kProcessNameBytes + 1];
  std::memset(buffer, '!', sizeof buffer);
  EXPECT_EQ(get_uid_for_pid(91, buffer), kAlice);
  EXPECT_STREQ(buffer, "sixteen-letters");
  EXPECT_EQ(buffer[kProcessNameBytes], '!');
  EXPECT_EQ(get_uid_for_pid(4711, buffer), 0u);
  EXPECT_STREQ(buffer, "") << "an unknown pid has no name";
}

// Which control block matches.

TEST_F(UserDetectTest, OnlyTcpOverIPv4NoNewerThanTheSnapshotMatches) {
  const auto pid_with = [this](std::uint64_t generation, int family_flags, int protocol) {
    PcbList::Pcb pcb = curl_pcb();
    pcb.generation = generation;
    pcb.family_flags = static_cast<std::uint8_t>(family_flags);
    pcb.protocol = protocol;
    list_ = PcbList(1000).add(pcb).end();
    return curl_pid();
  };
  EXPECT_EQ(pid_with(1000, 1, 6), 91u);
  EXPECT_EQ(pid_with(1001, 1, 6), 0u) << "newer";
  EXPECT_EQ(pid_with(0x8000000000000000u, 1, 6), 0u) << "compared without sign";
  EXPECT_EQ(pid_with(1000, 0xfd, 6), 91u) << "other flags do not matter";
  for (const int flags : {0, 2, 3})
    EXPECT_EQ(pid_with(1000, flags, 6), 0u) << "flags " << flags;
  EXPECT_EQ(pid_with(1000, 1, 17), 0u) << "UDP";
}

TEST_F(UserDetectTest, AllZeroBlockNeverMatchesNotEvenAnAllZeroQuery) {
  PcbList::Pcb pcb;
  pcb.handle = kCurlHandle;
  darwin_.pcb_list = PcbList().add(pcb).end().bytes();
  EXPECT_EQ(get_socket_pid(0, 0, 0, 0), 0u);
  pcb.local_port = htons(22);
  darwin_.pcb_list = PcbList().add(pcb).end().bytes();
  EXPECT_EQ(get_socket_pid(0, htons(22), 0, 0), 91u) << "one value is enough";
  EXPECT_EQ(get_socket_pid(0, 0, 0, htons(22)), 91u);
}

TEST_F(UserDetectTest, EachOfTheFourValuesCounts) {
  darwin_.pcb_list = list_.bytes();
  const std::uint32_t a = word("10.0.0.5"), p = htons(51000), b = word("10.0.0.9"), q = htons(80);
  const std::array<std::uint32_t, 4> directions[] = {{a, p, b, q}, {b, q, a, p}};
  for (const auto& right : directions) {
    EXPECT_EQ(get_socket_pid(right[0], right[1], right[2], right[3]), 91u);
    for (std::size_t i = 0; i < right.size(); ++i) {
      auto asked = right;
      asked[i] ^= 0x100;
      EXPECT_EQ(get_socket_pid(asked[0], asked[1], asked[2], asked[3]), 0u) << "value " << i;
    }
  }
  // Endpoints do not mix: the port belongs to its address.
  EXPECT_EQ(get_socket_pid(a, q, b, p), 0u);
}

TEST_F(UserDetectTest, PortIsWidenedWithoutSignAndComparedWithAllBitsOfTheArgument) {
  PcbList::Pcb pcb = curl_pcb();
  pcb.local_port = 0xfedc;
  darwin_.pcb_list = PcbList().add(pcb).end().bytes();
  EXPECT_EQ(get_socket_pid(word("10.0.0.5"), 0xfedc, word("10.0.0.9"), htons(80)), 91u);
  EXPECT_EQ(get_socket_pid(word("10.0.0.5"), 0x1fedc, word("10.0.0.9"), htons(80)), 0u);
}

TEST_F(UserDetectTest, FirstMatchingBlockDecidesEvenIfNobodyOwnsIt) {
  darwin_.processes.emplace_back(92, "other", kAlice).socket(3, 0xbeef);
  PcbList::Pcb first = curl_pcb();
  std::swap(first.local_address, first.foreign_address);
  std::swap(first.local_port, first.foreign_port);
  first.handle = 0xbeef;
  list_ = PcbList().add(first).add(curl_pcb()).end();
  EXPECT_EQ(curl_pid(), 92u);
  first.handle = 0xdead;
  list_ = PcbList().add(first).add(curl_pcb()).end();
  EXPECT_EQ(curl_pid(), 0u);
}

TEST_F(UserDetectTest, MatchBehindOtherBlocksOfAnyLengthIsFound) {
  list_ = PcbList();
  for (std::uint16_t i = 0; i < 500; ++i) {
    PcbList::Pcb pcb = curl_pcb();
    pcb.length = PcbList::kRecordBytes + i % 3 * 8;
    pcb.local_port = static_cast<std::uint16_t>(i + 1);
    pcb.handle = 0x1111;
    list_.add(pcb);
  }
  list_.add(curl_pcb()).end();
  EXPECT_EQ(curl_pid(), 91u);
}

// Snapshots that fail or are nonsense.

TEST_F(UserDetectTest, SnapshotThatCannotBeTakenHasNoOwner) {
  darwin_.pcb_sizing = list_.bytes().size() - 1;
  EXPECT_EQ(curl_pid(), 0u) << "the list grew between the calls";
  darwin_.pcb_sizing.reset();
  darwin_.pcb_fetch_works = false;
  EXPECT_EQ(curl_pid(), 0u);
  darwin_.pcb_fetch_works = true;
  darwin_.pcb_sizing_works = false;
  EXPECT_EQ(curl_pid(), 0u);
}

TEST_F(UserDetectTest, ListThatShrankBetweenTheCallsIsReadToItsEndOnly) {
  darwin_.pcb_sizing = list_.bytes().size() + 5000;
  EXPECT_EQ(curl_pid(), 91u);
  list_ = PcbList();  // no trailer: what lies behind was never written
  EXPECT_EQ(curl_pid(), 0u);
}

TEST_F(UserDetectTest, TrailerEndsTheWalk) {
  list_ = PcbList().end().add(curl_pcb());
  EXPECT_EQ(curl_pid(), 0u);
}

TEST_F(UserDetectTest, RecordLengthOfZeroOrBeyondTheEndEndsTheWalk) {
  for (const std::uint32_t length : {0u, 100000u, 0x7fffffffu, 0xfffffffeu, 0xffffffffu}) {
    PcbList::Pcb broken;
    broken.length = length;
    broken.local_port = 1;
    list_ = PcbList().add(broken).add(curl_pcb()).end();
    EXPECT_EQ(curl_pid(), 0u) << "length " << length;
  }
}

TEST_F(UserDetectTest, SnapshotCutAtAnyLengthIsNotReadPastItsEnd) {
  const std::size_t whole = 24 + PcbList::kRecordBytes;
  for (std::size_t bytes = 0; bytes <= whole; ++bytes) {
    list_ = PcbList().add(curl_pcb()).cut(bytes);
    // What lies behind the protocol is never looked at, so a record that lacks only that is whole.
    EXPECT_EQ(curl_pid(), bytes >= 24 + 440 ? 91u : 0u) << bytes << " bytes";
  }
}

TEST_F(UserDetectTest, RecordShorterThanItsFieldsIsSteppedOver) {
  for (const std::uint32_t length : {25u, 100u, 439u}) {
    PcbList::Pcb shorter;
    shorter.length = length;
    list_ = PcbList().add(shorter).cut(24 + length).add(curl_pcb()).end();
    EXPECT_EQ(curl_pid(), 91u) << "length " << length;
  }
}

TEST_F(UserDetectTest, HeaderLengthThatIsNonsenseHasNoOwner) {
  for (const std::uint32_t length : {0u, 3u, 8u, 500u, 549u, 100000u, 0xffffffffu}) {
    list_ = PcbList().add(curl_pcb()).header_length(length);
    EXPECT_EQ(curl_pid(), 0u) << "length " << length;
  }
}

TEST_F(UserDetectTest, ListsOfRandomLengthsAreNeverReadOutsideTheSnapshot) {
  // The check is the sanitizer's: the snapshot lies in a block of exactly its size.
  std::mt19937 random(static_cast<unsigned>(test::random_seed()));
  for (int round = 0; round < 3000; ++round) {
    list_ = PcbList();
    for (unsigned records = random() % 4; records > 0; --records) {
      PcbList::Pcb pcb = curl_pcb();
      pcb.foreign_port = 0;  // never a match, so that the walk goes on
      pcb.length = random() % 2 ? random() % 700 : random();
      list_.add(pcb);
    }
    if (random() % 2)
      list_.header_length(random() % 2000);
    list_.cut(random() % (list_.bytes().size() + 1));
    ASSERT_EQ(curl_pid(), 0u) << "round " << round;
  }
}

TEST_F(UserDetectTest, FirstRecordStartsAtTheHeadersOwnLength) {
  list_ = PcbList().header_length(40).cut(40).add(curl_pcb()).end();
  EXPECT_EQ(curl_pid(), 91u);
}

// Which process owns it.

TEST_F(UserDetectTest, HandleIsComparedInItsLowThirtyTwoBits) {
  darwin_.processes[0].handles[3] = 0xffffffff00000000u | kCurlHandle;
  const std::int32_t pids[] = {90, 91};
  EXPECT_EQ(find_owning_pid(kCurlHandle, pids, 2), 90u);
}

TEST_F(UserDetectTest, OnlyTheFirstCountPidsAreProbed) {
  const std::int32_t pids[] = {90, 91};
  EXPECT_EQ(find_owning_pid(kCurlHandle, nullptr, 0), 0u);
  EXPECT_EQ(find_owning_pid(kCurlHandle, pids, 0), 0u);
  EXPECT_EQ(find_owning_pid(kCurlHandle, pids, 1), 0u);
  EXPECT_THAT(darwin_.calls, Not(Contains("pidinfo 91 fds size")));
  EXPECT_EQ(find_owning_pid(kCurlHandle, pids, 2), 91u);
}

TEST_F(UserDetectTest, SharedSocketBelongsToTheProcessListedFirst) {
  darwin_.processes.emplace_back(92, "child", kAlice).socket(5, kCurlHandle);
  EXPECT_EQ(curl_pid(), 91u);
  std::swap(darwin_.processes[1], darwin_.processes[2]);
  EXPECT_EQ(curl_pid(), 92u);
}

TEST_F(UserDetectTest, OnlySocketsAmongTheDescriptorsAreAsked) {
  curl().descriptors.clear();
  for (int fd = 0; fd < 300; ++fd)
    curl().other(fd, 1, kCurlHandle);
  EXPECT_EQ(curl_pid(), 0u);
  EXPECT_THAT(darwin_.calls, Not(Contains("fdinfo 91 4")));
  curl().socket(300, kCurlHandle);
  EXPECT_EQ(curl_pid(), 91u);
}

TEST_F(UserDetectTest, ProcessWithoutReadableDescriptorsIsSkipped) {
  for (const int told : {0, -1, 7}) {
    darwin_.processes[0].descriptor_bytes = told;
    EXPECT_EQ(curl_pid(), 91u) << "told " << told;
  }
  darwin_.processes[0].descriptor_bytes.reset();
  darwin_.processes[0].list_fetch_works = false;
  EXPECT_EQ(curl_pid(), 91u) << "it vanished between the calls";
  curl().list_fetch_works = false;
  EXPECT_EQ(curl_pid(), 0u);
}

TEST_F(UserDetectTest, RemainderOfAListThatIsNoMultipleOfEightIsDropped) {
  curl().other(6, 1, 0);
  for (int rest = 1; rest < 8; ++rest) {
    curl().descriptor_bytes = 8 + rest;
    EXPECT_EQ(curl_pid(), 91u) << "rest " << rest;
    curl().descriptor_bytes = rest;
    EXPECT_EQ(curl_pid(), 0u) << "rest " << rest;
  }
}

TEST_F(UserDetectTest, FailedSocketInformationNeverMatches) {
  curl().socket_information_works = false;
  EXPECT_EQ(curl_pid(), 0u);
  const std::int32_t pids[] = {91};
  EXPECT_EQ(find_owning_pid(0, pids, 1), 0u);
}

// The list of processes.

TEST_F(UserDetectTest, AllOf1024PidsAreProbedAndNoneBeyond) {
  darwin_.processes.clear();
  for (int i = 0; i < 1023; ++i)
    darwin_.processes.emplace_back(1000 + i, "idle", 0);
  darwin_.processes.emplace_back(91, "curl", kAlice).socket(5, kCurlHandle);
  EXPECT_EQ(curl_pid(), 91u);
  darwin_.calls.clear();
  darwin_.processes.emplace(darwin_.processes.begin(), 2000, "one more", 0);
  EXPECT_EQ(curl_pid(), 0u);
  EXPECT_THAT(darwin_.calls, Contains("pidinfo 1022 fds size"));
  EXPECT_THAT(darwin_.calls, Not(Contains("pidinfo 91 fds size")));
}

TEST_F(UserDetectTest, NothingPastTheDeliveredPidsIsProbed) {
  // The sizing value is in bytes, so it is far more than the number of pids.
  darwin_.pid_sizing = 4096;
  list_ = PcbList().add(curl_pcb()).end();
  curl().descriptors.clear();
  EXPECT_EQ(curl_pid(), 0u);
  EXPECT_THAT(darwin_.calls, testing::ElementsAre("pidinfo 90 fds size", "pidinfo 90 fds",
                                                  "fdinfo 90 3", "pidinfo 91 fds size"));
}

TEST_F(UserDetectTest, FailedProcessListHasNoOwner) {
  for (const int told : {0, -1}) {
    darwin_.pid_sizing = told;
    EXPECT_EQ(curl_pid(), 0u) << "told " << told;
  }
}

// Memory.

TEST_F(UserDetectTest, AnOwnerTakesAnAllocationForTheSnapshotAndOneForEachListOrTheHostEnds) {
  darwin_.processes.erase(darwin_.processes.begin());
  for (const int left : {0, 1}) {
    EXPECT_DEATH(
        {
          allocations_left = left;
          curl_pid();
        },
        "out of memory in malloc\\.");
  }
  allocations_left = 2;
  EXPECT_EQ(curl_pid(), 91u);
}

TEST_F(UserDetectTest, WhatMemoryHeldBeforeIsNeverTakenForADescriptor) {
  curl().handles[3] = kCurlHandle;
  curl().list_fetch_works = false;
  EXPECT_EQ(curl_pid(), 0u);
}

// The list is cut behind its header, and goes on where the block ends.
TEST_F(UserDetectTest, SnapshotToldLongerThanItsBlockIsReadToTheEndOfTheBlock) {
  const std::vector<char> whole = list_.bytes();
  darwin_.pcb_fetched = whole.size();
  behind.assign(whole.begin() + PcbList::kGenerationBytes, whole.end());
  list_.cut(PcbList::kGenerationBytes);
  EXPECT_EQ(curl_pid(), 0u);
}

}  // namespace
