// What generated glue of .bif files includes.
#pragma once

#include "Conn.h"
