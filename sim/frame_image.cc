#include "sim/frame_image.h"

#include <algorithm>
#include <cmath>

namespace omra::sim {
namespace {

constexpr uint8_t kMagic[3] = {'O', 'M', 'R'};

void setPixel(PixelBuffer& img, int x, int y, uint8_t b, uint8_t g, uint8_t r) {
  uint8_t* p = img.row(y) + static_cast<size_t>(x) * 4;
  p[0] = b;
  p[1] = g;
  p[2] = r;
  p[3] = 255;
}

Vec3 shellNormal(int surfaceId) {
  switch (surfaceId) {
    case 0:
      return {0, 1, 0};
    case 1:
      return {1, 0, 0};
    case 2:
      return {-1, 0, 0};
    case 3:
      return {0, 0, 1};
    case 4:
      return {0, 0, -1};
    default:
      return {0, -1, 0};
  }
}

double sign(double v) { return v < 0 ? -1 : 1; }

// Paint of a wall: a soft pattern along it and up it, in the wall's own coordinates.
double wallTexture(const Vec3& p, const Vec3& n) {
  const Vec3 along = Vec3{0, 1, 0}.cross(n);
  const double u = p.dot(along);
  return 0.8 + 0.12 * std::cos(2.1 * u) * std::cos(1.7 * p.y) + 0.08 * sign(std::sin(9 * u + 0.4));
}

// Paint of an object: a checker of its class's own frequencies, in its own coordinates.
double objectTexture(const SimObject& o, const Vec3& p, const Vec3& n) {
  const Mat3 back = Mat3::rotY(-o.yaw);
  const Vec3 local = back * (p - o.center), ln = back * n;
  double u = local.x, v = local.y;
  if (std::fabs(ln.x) > 0.5) u = local.z;
  if (std::fabs(ln.y) > 0.5) v = local.z;
  const int k = o.classIndex;
  const double a = 8 + (k * 7) % 11, b = 6 + (k * 5) % 9;
  return 0.75 + 0.25 * sign(std::sin(a * u + 1.3) * std::sin(b * v + 0.7));
}

}  // namespace

PixelBuffer renderView(const Room& room, const CameraModel& camera, const CameraPose& pose,
                       const Lighting& light, int width, int height,
                       std::span<const SimObject> extras) {
  PixelBuffer img;
  img.width = std::max(width, 1);
  img.height = std::max(height, 1);
  img.bytesPerRow = static_cast<size_t>(img.width) * 4;
  img.data =
      std::make_shared<std::vector<uint8_t>>(img.bytesPerRow * static_cast<size_t>(img.height), 0);
  const Vec3 toLight{std::cos(light.elevation) * std::sin(light.azimuth), std::sin(light.elevation),
                     std::cos(light.elevation) * std::cos(light.azimuth)};
  for (int y = 0; y < img.height; ++y) {
    for (int x = 0; x < img.width; ++x) {
      const Vec3 dir = pose.rotation *
                       camera.rayThroughImagePoint((x + 0.5) / img.width, (y + 0.5) / img.height);
      RayHit hit = room.castRay(pose.position, dir);
      const SimObject* object = hit.object;
      for (const SimObject& e : extras) {
        const double t = rayObjectDistance(e, pose.position, dir, 1e-4);
        if (t < hit.distance) {
          hit.distance = t;
          hit.point = pose.position + dir * t;
          object = &e;
        }
      }
      double b = 200, g = 200, r = 200, texture = 0.95;
      Vec3 n;
      if (object && object->classIndex > 0) {
        const int k = object->classIndex;
        b = 60 + (k * 53) % 190;
        g = 60 + (k * 97) % 190;
        r = 60 + (k * 31) % 190;
        n = objectNormalAt(*object, hit.point);
        texture = objectTexture(*object, hit.point, n);
      } else if (object) {  // an inner wall
        n = objectNormalAt(*object, hit.point);
        texture = wallTexture(hit.point, n);
      } else {
        n = shellNormal(hit.surfaceId);
        if (hit.surfaceId == 0) {
          b = 70, g = 110, r = 150;
          texture = 0.8 + 0.2 * std::cos(5.3 * hit.point.x) * std::cos(4.1 * hit.point.z);
        } else if (hit.surfaceId > 0) {
          texture = wallTexture(hit.point, n);
        }
      }
      const double diffuse = std::max(0.0, n.dot(toLight));
      const double shade = light.gain * (light.ambient + (1 - light.ambient) * diffuse) *
                           std::clamp(1.15 - hit.distance / 10, 0.4, 1.0) * texture;
      setPixel(img, x, y, static_cast<uint8_t>(std::clamp(b * shade, 0.0, 255.0)),
               static_cast<uint8_t>(std::clamp(g * shade, 0.0, 255.0)),
               static_cast<uint8_t>(std::clamp(r * shade, 0.0, 255.0)));
    }
  }
  return img;
}

void writeFrameTag(PixelBuffer& image, int64_t frameIndex) {
  if (image.empty() || image.width < 6) return;
  setPixel(image, 0, 0, kMagic[0], kMagic[1], kMagic[2]);
  uint32_t v = static_cast<uint32_t>(frameIndex);
  uint8_t check = 0;
  for (int k = 0; k < 4; ++k) {
    uint8_t byte = static_cast<uint8_t>(v >> (8 * k));
    check ^= byte;
    setPixel(image, 1 + k, 0, byte, byte, byte);
  }
  setPixel(image, 5, 0, check, static_cast<uint8_t>(~check), check);
}

std::optional<int64_t> readFrameTag(const PixelBuffer& image) {
  if (image.empty() || image.width < 6 || image.bytesPerRow < 24 ||
      image.data->size() < image.bytesPerRow) {
    return std::nullopt;
  }
  const uint8_t* row = image.row(0);
  if (row[0] != kMagic[0] || row[1] != kMagic[1] || row[2] != kMagic[2]) return std::nullopt;
  uint32_t v = 0;
  uint8_t check = 0;
  for (int k = 0; k < 4; ++k) {
    const uint8_t* p = row + 4 * (1 + k);
    if (p[0] != p[1] || p[1] != p[2]) return std::nullopt;
    v |= static_cast<uint32_t>(p[0]) << (8 * k);
    check ^= p[0];
  }
  const uint8_t* c = row + 20;
  if (c[0] != check || c[1] != static_cast<uint8_t>(~check) || c[2] != check) return std::nullopt;
  return static_cast<int64_t>(v);
}

PixelBuffer renderFrameImage(const Room* room, const CameraModel& camera, const CameraPose& pose,
                             int64_t frameIndex) {
  PixelBuffer img;
  img.width = std::max(camera.imageWidth, 6);
  img.height = std::max(camera.imageHeight, 1);
  img.bytesPerRow = static_cast<size_t>(img.width) * 4;
  img.data = std::make_shared<std::vector<uint8_t>>(
      img.bytesPerRow * static_cast<size_t>(img.height), 128);
  if (room) {
    for (int y = 0; y < img.height; ++y) {
      for (int x = 0; x < img.width; ++x) {
        Vec3 dir = pose.rotation *
                   camera.rayThroughImagePoint((x + 0.5) / img.width, (y + 0.5) / img.height);
        RayHit hit = room->castRay(pose.position, dir);
        double shade = std::clamp(1.2 - hit.distance / 8.0, 0.3, 1.0);
        int b = 200, g = 200, r = 200;
        if (hit.objectId > 0) {
          int k = room->objects[static_cast<size_t>(hit.objectId - 1)].classIndex;
          b = 60 + (k * 53) % 190;
          g = 60 + (k * 97) % 190;
          r = 60 + (k * 31) % 190;
        } else if (hit.surfaceId == 0) {
          b = 70, g = 110, r = 150;
        } else if (hit.surfaceId > 0) {
          b = g = r = 150 + 20 * hit.surfaceId;
        }
        setPixel(img, x, y, static_cast<uint8_t>(b * shade), static_cast<uint8_t>(g * shade),
                 static_cast<uint8_t>(r * shade));
      }
    }
  } else {
    for (int y = 0; y < img.height; ++y) {
      for (int x = 0; x < img.width; ++x) setPixel(img, x, y, 128, 128, 128);
    }
  }
  writeFrameTag(img, frameIndex);
  return img;
}

}  // namespace omra::sim
