// What the benchmark programs share: the order of their turns, medians, options and files.

#include "BenchReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TempDir.h"

namespace test {
namespace {

using bench::Figures;
using bench::Series;
using ::testing::ElementsAre;

/// A command line that ends with these words.
bench::Options parse(std::vector<std::string> words,
                     const std::map<std::string, std::uint64_t*>& numbers = {},
                     bench::Runs runs = bench::Runs::kSeveral) {
  words.insert(words.begin(), "folder/SomeBench");
  std::vector<char*> arguments;
  for (std::string& word : words)
    arguments.push_back(&word[0]);
  return bench::parse(static_cast<int>(arguments.size()), arguments.data(), numbers, runs);
}

TEST(BenchOptions, AreFiveRunsOrThreeQuickOnesUnlessGiven) {
  EXPECT_EQ(parse({}).runs, 5);
  EXPECT_EQ(parse({"--quick"}).runs, 3);
  EXPECT_EQ(parse({"--runs", "7", "--quick"}).runs, 7);
  EXPECT_EQ(parse({"--quick"}, {}, bench::Runs::kOne).runs, 1);
}

TEST(BenchOptions, NameFilesOfTheFolderInWhichTheProgramWasStarted) {
  const TempDir folder;
  const bench::Options options = parse({"--csv", "rows.csv", "--growth", "/far/points.csv"});
  const TempDir another;
  EXPECT_EQ(options.csv, folder.file("rows.csv"));
  EXPECT_EQ(options.growth, "/far/points.csv");
  EXPECT_EQ(parse({}).csv, "");
}

TEST(BenchOptions, WrongWordsEndTheProgramWithItsUsage) {
  const auto exits = ::testing::ExitedWithCode(2);
  std::uint64_t records = 0;
  const std::map<std::string, std::uint64_t*> numbers = {{"--records", &records}};
  const std::vector<std::vector<std::string>> all = {
      {"word"},         {"--csv"},          {"--runs", "0"},     {"--runs", "1001"},
      {"--runs", "2x"}, {"--records", "0"}, {"--records", "-1"}, {"--frobnicate", "1"}};
  for (const auto& words : all)
    EXPECT_EXIT(parse(words, numbers), exits, "^usage: SomeBench .*--runs N. .--records N");
  EXPECT_EXIT(parse({"--runs", "3"}, {}, bench::Runs::kOne), exits, "--quick.\n$");
  EXPECT_EQ(parse({"--records", "12"}, numbers).runs, 5);
  EXPECT_EQ(records, 12u);
}

TEST(BenchMedian, IsTheMiddleOrTheMeanOfTwo) {
  EXPECT_EQ(bench::median({3}), 3);
  EXPECT_EQ(bench::median({9, 1, 5}), 5);
  EXPECT_EQ(bench::median({9, 1, 5, 2}), 3.5);
}

/// Two candidates that count upwards from 10 and downwards from -10, and the order of their calls.
class BenchTurns : public ::testing::Test {
 protected:
  std::string order;
  double upwards = 10;
  double downwards = -10;
  const std::function<double()> a = [this] { return order += 'a', upwards++; };
  const std::function<double()> b = [this] { return order += 'b', downwards--; };
};

TEST_F(BenchTurns, EverySecondOneIsInTheOppositeOrder) {
  const std::vector<Series> figures = bench::measure(5, {a, b});
  EXPECT_EQ(order, "abbaabbaab");
  ASSERT_EQ(figures.size(), 2u);
  EXPECT_THAT(figures[0].values(), ElementsAre(10, 11, 12, 13, 14));
  EXPECT_THAT(figures[1].values(), ElementsAre(-10, -11, -12, -13, -14));
  EXPECT_EQ(figures[0], 12.0);
  EXPECT_EQ(figures[1], -12.0);
}

TEST_F(BenchTurns, GiveEachFigureOfACandidateByItself) {
  const auto figures = bench::measure_figures(3, {[this] {
                                                    return Figures{a(), 1};
                                                  },
                                                  [this] {
                                                    return Figures{b(), 2, 3};
                                                  }});
  EXPECT_EQ(order, "abbaab");
  ASSERT_EQ(figures[0].size(), 2u);
  ASSERT_EQ(figures[1].size(), 3u);
  EXPECT_THAT(figures[1][0].values(), ElementsAre(-10, -11, -12));
  EXPECT_EQ(figures[1][2], 3.0);
}

/// What a program writes.
class BenchReport : public ::testing::Test {
 protected:
  using Rows = std::vector<bench::Row>;

  /// In a process of its own, since a report takes the standard output.
  std::string rows_of(const Rows& rows) {
    return written("--csv", [&](bench::Report* report) {
      for (const bench::Row& row : rows)
        report->add(row);
    });
  }

  std::string points_of(const std::function<void(bench::Report*)>& add) {
    return written("--growth", add);
  }

  const TempDir folder;

 private:
  std::string written(const char* option, const std::function<void(bench::Report*)>& add) {
    const auto work = [&] {
      bench::Report report(parse({option, "written.csv"}));
      add(&report);
      std::exit(report.finish());
    };
    EXPECT_EXIT(work(), ::testing::ExitedWithCode(0), "");
    return read_file("written.csv");
  }
};

const char kHead[] = "measure,case,unit,ours,peer_name,peer,ratio,goal,lowest,highest\n";

TEST_F(BenchReport, HasTheRatioOfTheMediansAndThatOfEachTurn) {
  EXPECT_EQ(rows_of({{"m", "c", "us", Series({2, 9, 3}), "p", Series({2, 3, 2}), "<= 1.5"}}),
            std::string(kHead) + "m,c,us,3,p,2,1.5,<= 1.5,1,3\n");
}

TEST_F(BenchReport, HasTheRunsOfOurFigureWhereThereIsNoPeer) {
  EXPECT_EQ(rows_of({{"m", "c", "kB", Series({2, 9, 3}), "", bench::kNone, ""}}),
            std::string(kHead) + "m,c,kB,3,,,,,2,9\n");
}

TEST_F(BenchReport, HasNoLimitsOfFiguresThatAreOfOneRunOrPutTogether) {
  EXPECT_EQ(rows_of({{"m", "1", "us", 3, "p", 2, ""},
                     {"m", "2", "us", Series({1, 2}), "p", 1, ""},
                     {"m", "3", "us", 4, "", bench::kNone, ""}}),
            std::string(kHead) + "m,1,us,3,p,2,1.5,,,\nm,2,us,1.5,p,1,1.5,,,\nm,3,us,4,,,,,,\n");
}

TEST_F(BenchReport, LeavesOutWhatCouldNotBeMeasured) {
  EXPECT_EQ(rows_of({{"m", "1", "us", bench::kNone, "p", 2, ""},
                     {"m", "2", "us", 2, "p", bench::kNone, ""}}),
            std::string(kHead) + "m,2,us,2,,,,,,\n");
}

TEST_F(BenchReport, QuotesWhatHasCommasOrQuotes) {
  EXPECT_EQ(rows_of({{"a, b", "say \"c\"", "us", 1, "", bench::kNone, ""}}),
            std::string(kHead) + "\"a, b\",\"say \"\"c\"\"\",us,1,,,,,,\n");
}

TEST_F(BenchReport, HasPointsOfCurvesWithAndWithoutAPeer) {
  EXPECT_EQ(points_of([](bench::Report* report) {
              report->add_growth("n: a, s", 1000000, 0.000123456789);
              report->add_growth("n: a, s", 2, 3, 4.5);
            }),
            "curve,x,ours,peer\n\"n: a, s\",1e+06,0.000123457,\n\"n: a, s\",2,3,4.5\n");
}

TEST_F(BenchReport, FileThatCannotBeWrittenIsAFailure) {
  const auto work = [] {
    std::exit(bench::Report(parse({"--csv", "no/such/folder.csv"})).finish());
  };
  EXPECT_EXIT(work(), ::testing::ExitedWithCode(1), "cannot write .*no/such/folder.csv");
}

}  // namespace
}  // namespace test
