// Text from outside, made fit for a message.
#pragma once

#include <string>
#include <string_view>

namespace app {

// One line that leaves a terminal as it is: control characters are written as \x1b, and of a text over 1000 bytes
// both ends are kept.
std::string Printable(std::string_view text);

} // namespace app
