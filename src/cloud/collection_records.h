// Per-frame collection records and the collector/streamer shapes. These carry fields only: nothing
// in the kit fills, writes or uploads them yet. Plain value types; not thread-safe to mutate
// concurrently (DataCollector carries its own mutex for whoever adds behaviour).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "omrakit/geometry.h"

namespace omra {

class CloudAPI;  // src/cloud/cloud_api.h

// What the records conform to; declares no operation yet.
struct Serializable {
  virtual ~Serializable() = default;
};

struct FrameFeature : Serializable {
  uint32_t cameraFrameId = 0;
  std::vector<uint64_t> featureIds;
};

struct CameraInfo : Serializable {
  uint32_t cameraFrameId = 0;
  Matrix4x4 cameraTransform;
};

struct LightingInfo : Serializable {
  uint32_t cameraFrameId = 0;
  float ambientIntensity = 0;
  float ambientColorTemperature = 0;
};

struct FeaturePoint : Serializable {
  uint64_t featureId = 0;
  Float3 point;
};

struct FeaturePixelData : Serializable {
  uint32_t cameraFrameId = 0;
  uint64_t featureId = 0;
  uint8_t R = 0, G = 0, B = 0;
};

struct S3Data {
  std::string _filename;
  std::shared_ptr<CloudAPI> _cloudAPI;
  std::string dataDirectory;
};

struct DataCollector {
  std::vector<std::shared_ptr<Serializable>> data;
  std::string filePrefix;
  std::shared_ptr<CloudAPI> cloud;
  std::string dataDir;
  bool streamableData = false;
  std::mutex lock;
  std::vector<S3Data> s3Streams;
  int64_t streamChunkCount = 0;
};

struct DictDataCollector : DataCollector {
  std::map<uint64_t, std::shared_ptr<Serializable>> data;
};

struct MetaDataCollector : DataCollector {
  std::map<std::string, std::string> data;
};

struct DataStreamer {
  std::vector<std::shared_ptr<DataCollector>> allDataToStream;
  std::string dataDirectory;
  std::optional<bool> isLocalizationMode;
  std::optional<std::string> localizationSessionUUID;
  std::optional<std::string> mapUUID;
  int64_t dataAddedSinceLastUpload = 0;
  bool dataStartedStreaming = false;
};

}  // namespace omra
