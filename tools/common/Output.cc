#include "Output.h"

#include <cerrno>
#include <cstring>

void Output::Write(std::string_view text) {
  if (!failed() && std::fwrite(text.data(), 1, text.size(), stream_) != text.size())
    Fail();
}

void Output::WriteLine(std::string_view text) {
  Write(text);
  Write("\n");
}

void Output::Flush() {
  if (!failed() && std::fflush(stream_) != 0)
    Fail();
}

void Output::Fail() {
  problem_ = std::string("cannot write the output: ") + std::strerror(errno);
}
