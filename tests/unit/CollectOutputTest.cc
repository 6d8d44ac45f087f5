// The outputs: streams that are interrupted, files that rotate.
#include "FileSink.h"
#include "Output.h"
#include "RotatingFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <flatbuffers/flatbuffers.h>

#include "EventJson.h"
#include "Files.h"
#include "RawEvents.h"
#include "TempDir.h"
#include "aggregator_generated.h"

namespace {

using namespace zmqwriter;
using testing::HasSubstr;

std::string event(const std::string& uid) {
  flatbuffers::FlatBufferBuilder builder;
  builder.Finish(Dravenholt::CreateNetworkEvent(builder, builder.CreateString(uid)));
  return std::string(reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize());
}

class CollectOutputTest : public testing::Test {
 protected:
  static void write(FileSink* sink, const std::string& message) {
    sink->Write(EventMessage(message.data(), message.size()), message);
  }

  static std::string framed(const std::string& message) {
    std::string text;
    append_raw_event(&text, message);
    return text;
  }

  /// A sink of raw events into "out".
  static FileSinkOptions raw(std::uint64_t rotate_size, std::uint64_t keep = 0) {
    return {"raw", "out", rotate_size, keep, false};
  }

  static bool exists(const std::string& file) { return access(file.c_str(), F_OK) == 0; }

  /// Waits until the sink in another thread waits for its output.
  void await_stall() const {
    while (!stats_.Counts().stalled)
      std::this_thread::yield();
  }

  test::TempDir temp_;
  CollectStats stats_;
};

TEST_F(CollectOutputTest, WriteGoesOnAfterSignalsAndWhereAPipeIsFull) {
  for (const bool blocking : {true, false}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    if (!blocking) {
      ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
    }
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    struct sigaction before;
    sigaction(SIGUSR1, &action, &before);

    const std::string text(1 << 20, 'x');
    std::atomic<bool> done{false};
    std::size_t written = 0;
    std::thread writer([&] {
      written = write_fully(ends[1], text);
      done = true;
      close(ends[1]);
    });
    std::string got;
    char buffer[4096];
    for (;;) {
      if (!done)
        pthread_kill(writer.native_handle(), SIGUSR1);
      const ssize_t size = read(ends[0], buffer, sizeof buffer);
      if (size == 0)
        break;
      if (size > 0)
        got.append(buffer, static_cast<std::size_t>(size));
    }
    writer.join();
    close(ends[0]);
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(written, text.size());
    EXPECT_TRUE(got == text);
  }
}

TEST_F(CollectOutputTest, StreamKeepsTheOrderOfWhatOthersHaveWrittenToIt) {
  std::FILE* const file = std::fopen("stream", "w");
  {
    Output out(file);
    std::fputs("before ", file);
    out.WriteLine("ours");
  }
  std::fclose(file);
  EXPECT_EQ(test::read_file("stream"), "before ours\n");
}

TEST_F(CollectOutputTest, FileIsExactlyAsLongAsAllowedAndNotAByteMore) {
  const std::string message = event("C1");
  const std::size_t size = framed(message).size();
  {
    FileSink exact(raw(2 * size), &stats_);
    for (int i = 0; i < 4; ++i) {
      write(&exact, message);
      if (i % 2 == 1)
        exact.Flush();
    }
    EXPECT_EQ(stats_.Counts().finished_files, 1u);
    EXPECT_EQ(stats_.Counts().written_bytes, 4 * size);
  }
  EXPECT_EQ(test::read_file("out.000001"), framed(message) + framed(message));
  EXPECT_EQ(test::read_file("out"), framed(message) + framed(message));

  FileSink less(raw(2 * size - 1), &stats_);
  EXPECT_FALSE(exists("out.000002")) << "the former run's file has moved too soon";
  less.Begin();
  for (int i = 0; i < 2; ++i)
    write(&less, message);
  less.Flush();
  EXPECT_EQ(stats_.Counts().finished_files, 1u);
  EXPECT_EQ(test::read_file("out.000003"), framed(message));
  EXPECT_EQ(test::read_file("out"), framed(message));
}

TEST_F(CollectOutputTest, EmptyFileIsNotMovedAside) {
  test::write_file("out", "");
  FileSink sink(raw(0), &stats_);
  sink.Begin();
  EXPECT_FALSE(exists("out.000001"));
}

TEST_F(CollectOutputTest, NumbersGoOnBeyondSixDigitsAndOtherNamesAreSomebodyElses) {
  const char* const others[] = {"out.20240101",
                                "out.99999",
                                "out.1000000x",
                                "out.1700000000",
                                "out.0000007",
                                "out.18446744073709551615",
                                "out.18446744073709551616"};
  for (const char* const name : others)
    test::write_file(name, name);
  test::write_file("out.999999", "old");
  RotatingFile file("out", 1, true);
  for (const char* const text : {"1", "2", "3"}) {
    ASSERT_EQ(file.Append(text), 1u);
    ASSERT_EQ(file.Rotate(), "");
  }
  EXPECT_EQ(test::read_file("out.1000002"), "3");
  EXPECT_FALSE(exists("out.1000001") || exists("out.999999"));
  for (const char* const name : others)
    EXPECT_EQ(test::read_file(name), name);
}

TEST_F(CollectOutputTest, FileGoesOnGrowingWhenTheNumbersAreUsedUp) {
  test::write_file("out.9999998", "old");
  RotatingFile file("out", 0, true);
  ASSERT_EQ(file.Append("1"), 1u);
  ASSERT_EQ(file.Rotate(), "");
  ASSERT_EQ(file.Append("2"), 1u);
  EXPECT_THAT(file.Rotate(), HasSubstr("out: cannot be moved aside to out.10000000"));
  ASSERT_EQ(file.Append("3"), 1u);
  EXPECT_EQ(test::read_file("out"), "23");
  EXPECT_EQ(test::read_file("out.9999999"), "1");
}

TEST_F(CollectOutputTest, FolderIsLookedAtAgainOnlyWhenANameIsTaken) {
  RotatingFile file("out", 0, true);
  test::write_file("out.000002", "of somebody else");
  test::write_file("out.000007", "of somebody else");
  for (const char* const text : {"1", "2", "3"}) {
    ASSERT_EQ(file.Append(text), 1u);
    ASSERT_EQ(file.Rotate(), "");
  }
  EXPECT_EQ(test::read_file("out.000001"), "1");
  EXPECT_EQ(test::read_file("out.000008"), "2");
  EXPECT_EQ(test::read_file("out.000009"), "3");
  EXPECT_EQ(test::read_file("out.000002") + test::read_file("out.000007"),
            "of somebody elseof somebody else");
}

TEST_F(CollectOutputTest, FileInUseIsRefusedAlsoAfterARotation) {
  RotatingFile file("out", 0, true);
  EXPECT_THROW(RotatingFile("out", 0, true), std::runtime_error);
  ASSERT_EQ(file.Append("first"), 5u);
  ASSERT_EQ(file.Rotate(), "");
  EXPECT_THROW(RotatingFile("out", 0, true), std::runtime_error);
  ASSERT_EQ(file.Append("second"), 6u);
  EXPECT_EQ(test::read_file("out.000001"), "first");
  EXPECT_EQ(test::read_file("out"), "second");
}

TEST_F(CollectOutputTest, FilesLieBesideWhatALinkLeadsToAlsoWhenItChanges) {
  std::filesystem::create_directory("old");
  std::filesystem::create_directory("new");
  ASSERT_EQ(symlink("old/events", "out"), 0);
  RotatingFile file("out", 0, true);
  ASSERT_EQ(file.Append("1"), 1u);
  ASSERT_EQ(file.Rotate(), "");
  ASSERT_EQ(file.Append("2"), 1u);
  EXPECT_TRUE(file.IsInPlace());
  std::filesystem::remove("out");
  ASSERT_EQ(symlink("new/events", "out"), 0);
  EXPECT_FALSE(file.IsInPlace());
  ASSERT_EQ(file.Reopen(), "");
  EXPECT_EQ(file.size(), 0u);
  EXPECT_TRUE(file.IsInPlace());
  ASSERT_EQ(file.Append("3"), 1u);
  ASSERT_EQ(file.Rotate(), "");
  ASSERT_EQ(file.Append("4"), 1u);
  EXPECT_TRUE(std::filesystem::is_symlink("out"));
  EXPECT_EQ(test::read_file("old/events.000001") + test::read_file("old/events"), "12");
  EXPECT_EQ(test::read_file("new/events.000002") + test::read_file("new/events"), "34");
}

TEST_F(CollectOutputTest, FileThatCannotBeOpenedAnewStaysInUse) {
  RotatingFile file("out", 0, true);
  for (const std::string obstacle : {"pipe", "folder", "lock"}) {
    ASSERT_EQ(std::rename("out", "moved"), 0);
    std::unique_ptr<RotatingFile> other;
    if (obstacle == "pipe") {
      ASSERT_EQ(mkfifo("out", 0600), 0);
    } else if (obstacle == "folder") {
      std::filesystem::create_directory("out");
    } else {
      other = std::make_unique<RotatingFile>("out", 0, true);
    }
    EXPECT_NE(file.Reopen(), "") << obstacle;
    EXPECT_FALSE(file.IsRemoved());
    ASSERT_EQ(file.Append("x"), 1u);
    std::filesystem::remove("out");
    ASSERT_EQ(std::rename("moved", "out"), 0);
  }
  EXPECT_TRUE(file.IsInPlace());
  EXPECT_EQ(test::read_file("out"), "xxx");
}

TEST_F(CollectOutputTest, TornEventIsCutOff) {
  RotatingFile file("out", 0, false);
  ASSERT_EQ(file.Append("whole "), 6u);
  ASSERT_EQ(file.Append("whole torn"), 10u);
  file.CutLastAppend(6);
  EXPECT_EQ(test::read_file("out"), "whole whole ");
  EXPECT_EQ(file.size(), 12u);
  // Never made longer, when another program has cut it meanwhile.
  ASSERT_EQ(truncate("out", 0), 0);
  file.CutLastAppend(6);
  EXPECT_EQ(test::read_file("out"), "");
}

TEST_F(CollectOutputTest, FullFileEndsWithAWholeEventAndGoesOnWhenThereIsRoom) {
  signal(SIGXFSZ, SIG_IGN);
  const std::string message = event("C1");
  const std::size_t size = framed(message).size();
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit limited = {2 * size + size / 2, before.rlim_max};
  FileSink sink(raw(0), &stats_);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
  std::string during;
  std::thread room([&] {
    await_stall();
    during = test::read_file("out");
    setrlimit(RLIMIT_FSIZE, &before);
  });
  for (int i = 0; i < 5; ++i)
    write(&sink, message);
  sink.Flush();
  room.join();
  const std::string two = framed(message) + framed(message);
  EXPECT_EQ(during, two);
  EXPECT_EQ(test::read_file("out"), two + two + framed(message));
  EXPECT_EQ(stats_.Counts().written_bytes, 5 * size);
  EXPECT_FALSE(stats_.Counts().stalled);
  EXPECT_FALSE(sink.failed());
}

}  // namespace
