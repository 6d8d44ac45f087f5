#include "NumberText.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Desc.h"
#include "threading/formatters/Ascii.h"

namespace {

struct Row {
  double number;
  const char* fixed;
  const char* shortened;
};

const Row kRows[] = {
    {0, "0.000000", "0.0"},
    {1, "1.000000", "1.0"},
    {-1, "-1.000000", "-1.0"},
    {0.5, "0.500000", "0.5"},
    {1340213005.165293, "1340213005.165293", "1340213005.165293"},
    {0.1 + 0.2, "0.300000", "0.3"},
    {2.9999999, "3.000000", "3"},
    {1e-7, "0.000000", "0"},
    {100, "100.000000", "100.0"},
    {2147483647.0, "2147483647.000000", "2147483647.0"},
    {2147483648.0, "2.147484e+09", "2.147484e+09"},
    {3e10, "3.000000e+10", "3.000000e+10"},
    {-3e10, "-3.000000e+10", "-3.000000e+10"},
    {std::numeric_limits<double>::quiet_NaN(), "nan", "nan"},
    {-std::numeric_limits<double>::quiet_NaN(), "nan", "nan"},
    {std::numeric_limits<double>::infinity(), "inf", "inf"},
    {-std::numeric_limits<double>::infinity(), "-inf", "-inf"},
};

}  // namespace

TEST(NumberText, EveryRowOfTheHostsTable) {
  for (const Row& row : kRows) {
    EXPECT_EQ(standin::fixed_number(row.number), row.fixed);
    EXPECT_EQ(standin::short_number(row.number), row.shortened);
  }
}

TEST(NumberText, DescriptionsAndFormattersUseIt) {
  const threading::formatter::Ascii formatter(nullptr,
                                              threading::formatter::Ascii::SeparatorInfo());
  for (const Row& row : kRows) {
    ODesc d;
    d.Add(row.number);
    EXPECT_STREQ(d.Description(), row.shortened);
    EXPECT_EQ(formatter.Render(row.number), row.fixed);
  }
}
