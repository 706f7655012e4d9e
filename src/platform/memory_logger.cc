#include "src/platform/memory_logger.h"

namespace omra {

void MemoryLogger::print(std::string_view message) {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back({false, LogLevel::kInfo, std::string(message)});
}

void MemoryLogger::systemLog(LogLevel level, std::string_view message) {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back({true, level, std::string(message)});
}

std::vector<MemoryLogger::Line> MemoryLogger::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> MemoryLogger::prints() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  for (const auto& l : lines_) {
    if (!l.system) out.push_back(l.text);
  }
  return out;
}

bool MemoryLogger::contains(std::string_view needle) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& l : lines_) {
    if (l.text.find(needle) != std::string::npos) return true;
  }
  return false;
}

void MemoryLogger::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

}  // namespace omra
