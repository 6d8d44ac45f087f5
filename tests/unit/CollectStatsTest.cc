// The counts of a collector, their labels, and the reports made of them.
#include "CollectStats.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <flatbuffers/flatbuffers.h>

#include "EventJson.h"
#include "StatsPrinter.h"
#include "aggregator_generated.h"

namespace {

using namespace zmqwriter;
using testing::ElementsAre;
namespace schema = Dravenholt;

/// Counts an event of `size` bytes.
void count(CollectStats* stats, const char* agent, std::size_t size = 10,
           schema::Data type = schema::Data_NONE, double now = 1000) {
  flatbuffers::FlatBufferBuilder builder;
  const auto agent_id =
      agent ? builder.CreateString(agent) : flatbuffers::Offset<flatbuffers::String>();
  builder.Finish(schema::CreateNetworkEvent(builder, 0, 1.0, 0, agent_id, type));
  stats->CountEvent(EventMessage(builder.GetBufferPointer(), builder.GetSize()), size, now);
}

TEST(CollectStatsTest, EventsAreCountedByTypeAndAgent) {
  CollectStats stats;
  count(&stats, "a", 10, schema::Data_HttpData);
  count(&stats, "a", 20, schema::Data_FtpData);
  count(&stats, "b", 30, schema::Data_HttpData);
  count(&stats, "b", 40, static_cast<schema::Data>(200));
  const CollectCounts counts = stats.Counts();
  EXPECT_EQ(counts.all.events, 4u);
  EXPECT_EQ(counts.all.bytes, 100u);
  EXPECT_EQ(counts.by_type.size(), 3u);
  EXPECT_EQ(counts.by_type.at("HttpData").events, 2u);
  EXPECT_EQ(counts.by_type.at("HttpData").bytes, 40u);
  EXPECT_EQ(counts.by_type.at("FtpData").bytes, 20u);
  EXPECT_EQ(counts.by_type.at("200").bytes, 40u);
  EXPECT_EQ(counts.by_agent.size(), 2u);
  EXPECT_EQ(counts.by_agent.at("a").bytes, 30u);
  EXPECT_EQ(counts.by_agent.at("b").events, 2u);
}

TEST(CollectStatsTest, AbsentAndEmptyAgentsAreOne) {
  CollectStats stats;
  count(&stats, nullptr);
  count(&stats, "");
  EXPECT_EQ(stats.Counts().by_agent.at(kNoAgent).events, 2u);
}

TEST(CollectStatsTest, AgentThatWasNotSeenForLongestMakesRoom) {
  CollectStats stats(3);
  double now = 1000;
  for (const char* const agent : {"a", "b", "c", "a", "d", "e", "c"})
    count(&stats, agent, 10, schema::Data_NONE, now++);
  const CollectCounts counts = stats.Counts();
  ASSERT_EQ(counts.by_agent.size(), 4u);
  for (const char* const agent : {"d", "e", "c"})
    EXPECT_EQ(counts.by_agent.at(agent).events, 1u) << agent;
  EXPECT_EQ(counts.by_agent.at(kOtherAgents).events, 4u);
  EXPECT_EQ(counts.by_agent.at(kOtherAgents).bytes, 40u);

  // As a list that each agent moves to the end of.
  std::vector<std::string> newest;
  CollectStats many(20);
  std::mt19937 random(4);
  for (int i = 0; i < 5000; ++i) {
    const std::string agent = std::to_string(random() % (i % 500 < 250 ? 25 : 100));
    count(&many, agent.c_str(), 10, schema::Data_NONE, now++);
    newest.erase(std::remove(newest.begin(), newest.end(), agent), newest.end());
    newest.push_back(agent);
    if (newest.size() > 20)
      newest.erase(newest.begin());
    const auto told_apart = many.Counts().by_agent;
    for (const std::string& name : newest)
      ASSERT_EQ(told_apart.count(name), 1u) << name << " at " << i;
  }
}

TEST(CollectStatsTest, TrafficIsGivenByMinuteAndAsRates) {
  Traffic traffic;
  EXPECT_EQ(traffic.Rates(6000).first, 0);
  traffic.Add(100, 6010);
  EXPECT_EQ(traffic.Rates(6010), std::pair(1.0, 100.0)) << "over a second at least";
  EXPECT_EQ(traffic.Rates(6030), std::pair(1 / 20.0, 100 / 20.0));
  traffic.Add(300, 6070);
  traffic.Add(300, 6065);  // the clock was set back
  EXPECT_EQ(traffic.last(), 6070);
  EXPECT_EQ(traffic.Rates(6070), std::pair(3 / 60.0, 700 / 60.0));
  EXPECT_EQ(traffic.Rates(6140), std::pair(2 / 80.0, 600 / 80.0)) << "the minute before and 20 s";
  EXPECT_EQ(traffic.Rates(7000).first, 0);
  traffic.Add(1, 6000 + 59 * 60);
  const auto minutes = traffic.Minutes(6000 + 60 * 60);
  EXPECT_EQ(minutes[0].events, 2u);
  EXPECT_EQ(minutes[1].events + minutes[57].events, 0u);
  EXPECT_EQ(minutes[58].bytes, 1u);
  EXPECT_EQ(minutes[59].events, 0u);
  traffic.Add(5, 6000 + 200 * 60);
  EXPECT_EQ(traffic.Minutes(6000 + 200 * 60)[58].events, 0u) << "older hours are forgotten";
  EXPECT_EQ(traffic.events, 5u);
}

TEST(CollectStatsTest, AgentThatCallsItselfOthersIsNotTakenForThem) {
  CollectStats stats;
  count(&stats, kOtherAgents);
  count(&stats, kNoAgent);
  const CollectCounts counts = stats.Counts();
  EXPECT_EQ(counts.by_agent.count(kOtherAgents) + counts.by_agent.count(kNoAgent), 0u);
  EXPECT_EQ(counts.by_agent.at("\\x28others)").events, 1u);
}

TEST(CollectStatsTest, LongNamesAreCutAndCountTogether) {
  CollectStats stats;
  const std::string start(CollectStats::kLongestAgent, 'x');
  count(&stats, start.c_str());
  count(&stats, (start + "1").c_str());
  count(&stats, (start.substr(1) + "\xe2\x82\xac").c_str());  // cut inside the sign
  const CollectCounts counts = stats.Counts();
  EXPECT_EQ(counts.by_agent.size(), 2u);
  EXPECT_EQ(counts.by_agent.at(start).events, 2u);
  EXPECT_EQ(counts.by_agent.at(start.substr(1) + "\\xe2").events, 1u);
}

TEST(CollectStatsTest, LabelsAreUtf8WithoutControlCharacters) {
  EXPECT_EQ(agent_label("agent-7 \xc3\xa9\xe2\x82\xac\xf0\x9f\x9a\x80"),
            "agent-7 \xc3\xa9\xe2\x82\xac\xf0\x9f\x9a\x80");
  EXPECT_EQ(agent_label("a\nb\x1b\x7f"), "a\\x0ab\\x1b\\x7f");
  EXPECT_EQ(agent_label(std::string_view("\0", 1)), "\\x00");
  EXPECT_EQ(agent_label("\xff\xc3"), "\\xff\\xc3");
  EXPECT_EQ(agent_label("\xc2\x9b\xc2\xa0"), "\\xc2\\x9b\xc2\xa0") << "controls end at U+009F";
  EXPECT_EQ(agent_label("\xe2\x80\xa8\xe2\x80\xa9\xe2\x80\xaa"),
            "\\xe2\\x80\\xa8\\xe2\\x80\\xa9\xe2\x80\xaa")
      << "separators of lines";
  EXPECT_EQ(agent_label("\\x41"), "\\x5cx41") << "never the same as another name's label";
  EXPECT_EQ(agent_label("a(b"), "a(b");
}

TEST(CollectStatsTest, CountingAndReadingAtTheSameTimeAddsUp) {
  CollectStats stats;
  constexpr int kEach = 2000;
  std::vector<std::thread> threads;
  for (const char* const agent : {"a", "b"}) {
    threads.emplace_back([&stats, agent] {
      for (int i = 0; i < kEach; ++i) {
        count(&stats, agent);
        stats.CountEmpty();
        stats.CountMalformed();
        stats.CountMultiPart();
      }
    });
  }
  std::uint64_t seen = 0;
  while (seen < 2 * kEach) {
    const CollectCounts counts = stats.Counts();
    ASSERT_GE(counts.all.events, seen);
    seen = counts.all.events;
    std::uint64_t by_agent = 0;
    for (const auto& agent : counts.by_agent)
      by_agent += agent.second.events;
    ASSERT_EQ(by_agent, seen);
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(stats.Counts().messages(), 4u * 2 * kEach);
}

TEST(StatsReportTest, TellsCountsAndRatesSinceTheReportBefore) {
  CollectStats stats;
  count(&stats, "a", 100, schema::Data_HttpData);
  const CollectCounts before = stats.Counts();
  for (int i = 0; i < 4; ++i)
    count(&stats, "b", 50, schema::Data_FtpData);
  stats.CountEmpty();
  stats.CountMalformed();
  stats.CountMalformed();
  stats.CountMultiPart();
  EXPECT_EQ(stats_report(before, stats.Counts(), 2.0),
            "[stats] 2.0 s: 4 events (2.0/s), 200 bytes (100/s), 1 empty (0.5/s), "
            "2 malformed (1.0/s), 1 multi-part (0.5/s)\n"
            "[stats]   FtpData: 4 events (2.0/s), 200 bytes (100/s)\n"
            "[stats]   agent b: 4 events (2.0/s), 200 bytes (100/s)\n");
}

TEST(StatsReportTest, NamesTheTenBusiestAgents) {
  CollectStats stats;
  for (int number = 0; number < 15; ++number) {
    for (int i = 0; i <= number; ++i)
      count(&stats, ("agent-" + std::to_string(number)).c_str());
  }
  const std::string report = stats_report(CollectCounts(), stats.Counts(), 1.0);
  EXPECT_NE(report.find("agent agent-14: 15 events"), std::string::npos);
  EXPECT_NE(report.find("agent agent-5: 6 events"), std::string::npos);
  EXPECT_EQ(report.find("agent agent-4:"), std::string::npos);
  EXPECT_NE(report.find("[stats]   and 5 agents more\n"), std::string::npos);
}

TEST(StatsTableTest, ShowsTheBusiestAgentsThatFitTheTerminal) {
  CollectStats stats;
  count(&stats, "quiet");
  const CollectCounts before = stats.Counts();
  for (int i = 0; i < 4; ++i)
    count(&stats, "b\xc3\xa4r", 50);
  count(&stats, "a", 50);
  stats.CountEmpty();
  const auto table = [&](std::size_t rows, std::size_t columns) {
    return stats_table(before, stats.Counts(), 2.0, rows, columns);
  };
  const std::vector<std::string> all = {
      "",
      "    events/s       bytes/s         events  agent",
      "         2.5           125              6  all: 3 agents, 1 bad message",
      "         2.0           100              4  b\xc3\xa4r",
      "         0.5            25              1  a",
      "         0.0             0              1  quiet"};
  EXPECT_EQ(table(6, 80), all);
  EXPECT_EQ(table(7, 80), all);
  EXPECT_THAT(table(5, 80), ElementsAre(all[0], all[1], all[2], all[3], "and 2 agents more"));
  EXPECT_THAT(table(4, 80), ElementsAre(all[0], all[1], all[2], "and 3 agents more"));
  EXPECT_THAT(table(2, 80), ElementsAre(all[0], all[1]));
  EXPECT_EQ(table(6, 72), all);
  EXPECT_THAT(table(6, 63),
              ElementsAre("", "    events/s  agent", "         2.5  all: 3 agents, 1 bad message",
                          "         2.0  b\xc3\xa4r", "         0.5  a", "         0.0  quiet"));
  EXPECT_EQ(table(6, 16)[3], "         2.0  b\xc3\xa4") << "no half letter";
  EXPECT_EQ(table(6, 3)[1], "   ");
}

}  // namespace
