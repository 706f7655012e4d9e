#include "server/server_process.h"

#include <malloc.h>
#include <sys/resource.h>

namespace omra::server {

void raiseOpenFileLimit() {
  rlimit r{};
  if (::getrlimit(RLIMIT_NOFILE, &r) == 0 && r.rlim_cur < r.rlim_max) {
    r.rlim_cur = r.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &r);
  }
}

void tuneMallocForServer() { mallopt(M_MMAP_THRESHOLD, 128 * 1024); }

}  // namespace omra::server
