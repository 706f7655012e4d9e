#include <cstdio>
#include <optional>
#include <string>

#include "tools/commands.h"
#ifdef OMRA_HAVE_SERVER
#include <fstream>
#include <sstream>

#include "server/account.h"
#include "server/server.h"
#include "src/platform/config_loader.h"
#endif

namespace omra::tools {

#ifdef OMRA_HAVE_SERVER
namespace {

// The command's defaults are the server's.
static_assert(ServerCommandOptions{}.requestsPerSecond ==
                  server::QuotaOptions{}.requestsPerSecond &&
              ServerCommandOptions{}.requestBurst == server::QuotaOptions{}.requestBurst &&
              ServerCommandOptions{}.bytesPerSecond == server::QuotaOptions{}.bytesPerSecond &&
              ServerCommandOptions{}.byteBurst == server::QuotaOptions{}.byteBurst);

// A DynamoDB store needs the region and credentials from the configuration (AWS_* variables or
// the config file); the other stores ignore them.
std::optional<AwsSettings> configuredAws() {
  std::string error;
  std::optional<Config> config = loadConfig(&error);
  if (!config) {
    std::fprintf(stderr, "omra: configuration error: %s\n", error.c_str());
    return std::nullopt;
  }
  return config->aws;
}

}  // namespace
#endif

int runServer(const ServerCommandOptions& options) {
#ifdef OMRA_HAVE_SERVER
  server::ServerOptions s;
  s.host = options.host;
  s.port = options.port;
  s.storeSpec = options.store;
  for (const std::string& key : options.allowKeys) {
    if (!server::isAccountDigest(key)) {
      std::fprintf(stderr, "omra server: --allow-key %s is not a developer-key digest\n",
                   key.c_str());
      return 1;
    }
    s.allowedDeveloperKeys.insert(key);
  }
  if (!options.allowKeysFile.empty()) {
    std::ifstream in(options.allowKeysFile);
    std::stringstream text;
    text << in.rdbuf();
    std::string error;
    if (!in || !server::parseAllowedKeys(text.str(), &s.allowedDeveloperKeys, &error)) {
      std::fprintf(stderr, "omra server: --allow-keys-file %s: %s\n", options.allowKeysFile.c_str(),
                   in ? error.c_str() : "cannot read it");
      return 1;
    }
  }
  s.quotas.requestsPerSecond = options.requestsPerSecond;
  s.quotas.requestBurst = options.requestBurst;
  s.quotas.bytesPerSecond = static_cast<double>(options.bytesPerSecond);
  s.quotas.byteBurst = static_cast<double>(options.byteBurst);
  std::optional<AwsSettings> aws = configuredAws();
  if (!aws) return 1;
  s.aws = *aws;
  return server::runServerCommand(std::move(s));
#else
  (void)options;
  std::fprintf(stderr, "omra server: this build has no omra-server\n");
  return 2;
#endif
}

int runCreateTables(const std::string& store) {
#ifdef OMRA_HAVE_SERVER
  std::optional<AwsSettings> aws = configuredAws();
  if (!aws) return 1;
  return server::createTablesCommand(store, *aws);
#else
  (void)store;
  std::fprintf(stderr, "omra create-tables: this build has no omra-server\n");
  return 2;
#endif
}

}  // namespace omra::tools
