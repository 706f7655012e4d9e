// Text from data (asset ids, class names, log lines) made safe for HTML and SVG, in element text
// and in quoted attributes alike. Pure functions; thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace omra::tools {

// text with &, <, >, " and ' as character references, and bytes that are not UTF-8 as U+FFFD.
std::string escapeMarkup(std::string_view text);

// value with the given number of decimals, whatever the process's locale ("1.250").
std::string fixed(double value, int decimals);

}  // namespace omra::tools
