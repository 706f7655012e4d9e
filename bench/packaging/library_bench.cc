// Size of libomrakit.so as installed (stripped) and the wall time of loading it in a fresh process
// (dlopen with every dependency resolved, as a host's start-up pays it).
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

// Loads the library in a child process, so that nothing is already mapped; seconds, or < 0.
double loadSecondsInFreshProcess(const std::string& path) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    close(pipeFds[0]);
    const auto start = std::chrono::steady_clock::now();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double out = handle ? seconds : -1;
    if (write(pipeFds[1], &out, sizeof out) != sizeof out) _exit(1);
    _exit(0);
  }
  close(pipeFds[1]);
  double seconds = -1;
  if (read(pipeFds[0], &seconds, sizeof seconds) != sizeof seconds) seconds = -1;
  close(pipeFds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return seconds;
}

}  // namespace

int main() {
  namespace fs = std::filesystem;
  const fs::path built = OMRA_SHARED_LIBRARY;
  const fs::path stripped = fs::temp_directory_path() / ("omra-bench-" + std::to_string(getpid()) +
                                                         "-" + built.filename().string());
  fs::copy_file(built, stripped, fs::copy_options::overwrite_existing);
  const std::string strip =
      std::string(OMRA_STRIP) + " --strip-unneeded '" + stripped.string() + "'";
  if (std::string(OMRA_STRIP).empty() || std::system(strip.c_str()) != 0) {
    std::fprintf(stderr, "cannot strip %s\n", stripped.c_str());
    return 1;
  }
  std::vector<double> loads;
  for (int i = 0; i < 7; ++i) {
    const double s = loadSecondsInFreshProcess(stripped.string());
    if (s < 0) {
      std::fprintf(stderr, "cannot load %s: %s\n", stripped.c_str(), dlerror());
      return 1;
    }
    loads.push_back(s);
  }
  std::sort(loads.begin(), loads.end());
  std::printf("figure shared_library_size %.2f MB\n",
              static_cast<double>(fs::file_size(stripped)) / (1024.0 * 1024.0));
  std::printf("figure shared_library_load_median %.1f ms\n", 1000 * loads[loads.size() / 2]);
  fs::remove(stripped);
  return 0;
}
