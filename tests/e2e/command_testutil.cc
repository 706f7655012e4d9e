#include "tests/e2e/command_testutil.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace omra::testing {

CommandRun omra(const std::string& arguments, const std::string& environment) {
  const std::string command =
      environment + " " + std::string(OMRA_BINARY_DIR) + "/tools/omra " + arguments + " 2>&1";
  CommandRun run;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return run;
  std::array<char, 4096> buffer;
  size_t n = 0;
  while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
    run.output.append(buffer.data(), n);
  const int status = pclose(pipe);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

pid_t spawnOmra(const std::vector<std::string>& arguments, const std::string& logPath) {
  const std::string binary = std::string(OMRA_BINARY_DIR) + "/tools/omra";
  std::vector<std::string> args{binary};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  const int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0 || dup2(fd, STDERR_FILENO) < 0) _exit(127);
  execv(binary.c_str(), argv.data());
  _exit(127);
}

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace omra::testing
