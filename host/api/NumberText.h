// How the host writes floating-point numbers.
#pragma once

#include <string>

namespace standin {

/// Six decimals; %e beyond +-(2^31-1); "nan", "inf", "-inf".
std::string fixed_number(double d);

/// fixed_number without trailing zeros, with ".0" when the value is a whole int.
std::string short_number(double d);

}  // namespace standin
