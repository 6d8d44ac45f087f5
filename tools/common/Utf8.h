// What is valid UTF-8 in bytes that came from the network.
#pragma once

#include <cstddef>

namespace zmqwriter {

/// Length of the valid UTF-8 sequence at the start of `text`, 0 if there is none. Overlong forms,
/// surrogates, and what lies above U+10FFFF are not valid. `size` is at least 1.
std::size_t utf8_length(const unsigned char* text, std::size_t size);

/// Whether a valid sequence is fit for a line on a terminal as it is: no control character (those
/// of ASCII, DEL, U+0080 to U+009F), no separator of lines or paragraphs (U+2028, U+2029).
bool is_printable(const unsigned char* sequence, std::size_t length);

}  // namespace zmqwriter
