// What generated glue of .bif files includes.
#pragma once

#include "Conn.h"
#include "Event.h"
#include "NetVar.h"
#include "analyzer/Analyzer.h"
