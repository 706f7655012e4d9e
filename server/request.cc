#include "server/request.h"

#include <algorithm>
#include <cctype>

namespace omra::server {

std::string Request::header(const std::string& name) const {
  std::string lower = name;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  auto it = headers.find(lower);
  return it == headers.end() ? std::string() : it->second;
}

}  // namespace omra::server
