// Protocol analyzers: only the name. The stand-in analyses nothing.
#pragma once

namespace analyzer {
class Analyzer;
}
