// The kit's deployment configuration: where the back end and the stores are, and facts a phone
// platform would supply. Loaded once (see loadConfig) from an optional file and OMRA_* environment
// variables; the defaults run locally with no account.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace omra {

struct EndpointHosts {
  // Scheme and host (and port) of each gateway, e.g. "https://maps.example.com" or
  // "http://127.0.0.1:8080". The stage ("/beta", "/prod") and paths are fixed by the kit.
  std::string mapsBeta = "http://127.0.0.1:8080";
  std::string mapsProd = "http://127.0.0.1:8080";
  std::string imageMatcherBeta = "http://127.0.0.1:8080";
  std::string imageMatcherProd = "http://127.0.0.1:8080";
  std::string linearOptimizerBeta = "http://127.0.0.1:8080";
  std::string linearOptimizerProd = "http://127.0.0.1:8080";
};

struct AwsSettings {
  std::string region = "us-east-1";
  std::string accessKeyId;
  std::string secretAccessKey;
  std::string sessionToken;  // optional
};

struct Config {
  EndpointHosts endpoints;
  // "backend" (the maps host's ingest route, by way of the outbox below), "backend:URL" (another
  // stage base, e.g. https://maps.example.com/beta), "sqlite:PATH", "dynamodb:URL" (e.g.
  // dynamodb:http://127.0.0.1:4567) or "memory".
  std::string recordStore = "backend";
  // The backend store's outbox on the device; empty: record-outbox.db in
  // $XDG_STATE_HOME/omrakit/<bundle id>/ (~/.local/state/omrakit/<bundle id>/ without it).
  std::string recordOutbox;
  // Records waiting in the outbox may take this much; beyond it new records are refused.
  double recordOutboxMaxMegabytes = 512;
  // How long a session's dispose (and the store's close) waits for records to reach the back end.
  double recordFlushTimeoutSeconds = 2;
  // "file:PATH" (JSON lines), "stdout", "cloudwatch" (optionally "cloudwatch:URL"), or "none".
  std::string metricsSink = "none";  // nothing is written unless configured
  AwsSettings aws;
  std::string modelPath;  // detector model file (ONNX or TensorFlow .pb); empty: no detector
  std::optional<std::string> bundleIdentifier;
  std::optional<std::vector<std::string>> supportedOrientations;
  std::optional<double> longitude, latitude, altitude, horizontalAccuracy, verticalAccuracy;
  double httpIdleTimeoutSeconds = 60;
};

}  // namespace omra
