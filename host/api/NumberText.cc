#include "NumberText.h"

#include <stdio.h>

#include <cmath>

namespace standin {

namespace {

const double kLargestFixed = 2147483647.0;

bool is_fixed(double d) {
  return std::isfinite(d) && std::fabs(d) <= kLargestFixed;
}

}  // namespace

std::string fixed_number(double d) {
  if (std::isnan(d))
    return "nan";
  if (std::isinf(d))
    return d < 0 ? "-inf" : "inf";
  char text[64];
  snprintf(text, sizeof(text), is_fixed(d) ? "%.6f" : "%e", d);
  return text;
}

std::string short_number(double d) {
  std::string text = fixed_number(d);
  if (!is_fixed(d))
    return text;
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.')
    text.pop_back();
  // The host looks at the value, not at the text: 2.9999999 is "3", not "3.0".
  if (d == static_cast<double>(static_cast<int>(d)))
    text += ".0";
  return text;
}

}  // namespace standin
