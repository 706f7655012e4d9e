// JSON text written straight into a string, for answers too long to build as a document first
// (a page of nearby maps). Plain functions; thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace omra::server {

// s as a JSON string, quotes included. Bytes that are not UTF-8 become U+FFFD, as the answers
// written from documents do.
void appendJsonString(std::string& out, std::string_view s);
// v in the shortest text that reads back as v; not finite: null, which JSON has no number for.
void appendJsonNumber(std::string& out, double v);

}  // namespace omra::server
