// Running the built omra binary from the end-to-end tests: to completion with its output, or as a
// child process the test signals. Plain functions; thread-safe.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace omra::testing {

struct CommandRun {
  int exitCode = -1;
  std::string output;  // standard output and standard error together
};

// Runs `omra arguments`; environment: "NAME=value ..." put before the command, or empty.
CommandRun omra(const std::string& arguments, const std::string& environment = "");

// Starts `omra arguments...` with standard output and error going to logPath; its process id, or
// -1 when it could not start.
pid_t spawnOmra(const std::vector<std::string>& arguments, const std::string& logPath);

// The whole text of a file ("" when it cannot be read).
std::string fileText(const std::string& path);

}  // namespace omra::testing
