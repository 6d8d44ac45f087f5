#include "standin/PseudoTime.h"

#include "Clock.h"

void standin::set_pseudo_time(double seconds) {
  host::pseudo_time = seconds;
}
