#include "server/map_store.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <functional>

#include "omrakit/platform/http_client.h"
#include "server/ids.h"
#include "server/server_tables.h"
#include "src/cloud/record_item.h"
#include "src/platform/store/item_checks.h"

namespace omra::server {
namespace {

AttributeValue str(const std::string& s) { return AttributeValue::string(s); }

void putMapFields(Item& item, const MapRecord& m) {
  item["MapUuid"] = str(m.uuid);
  item["AppId"] = str(m.appId);
  item["Account"] = str(m.account);
  item["UserId"] = str(m.userId);
  item["MapId"] = str(m.mapId);
  if (m.location) {
    item["Longitude"] = doubleNumber(m.location->longitude);
    item["Latitude"] = doubleNumber(m.location->latitude);
    item["Altitude"] = doubleNumber(m.location->altitude);
    item["HorizontalAccuracy"] = doubleNumber(m.location->horizontalAccuracy);
    item["VerticalAccuracy"] = doubleNumber(m.location->verticalAccuracy);
  }
}

// Items that do not read back as a map (written by something else) are skipped, not fatal.
std::optional<MapRecord> mapFromItem(const Item& item) {
  std::optional<std::string> uuid, app, account, user, name;
  std::optional<int64_t> created;
  if (!readString(item, "MapUuid", uuid) || !readString(item, "AppId", app) ||
      !readString(item, "Account", account) || !readString(item, "UserId", user) ||
      !readString(item, "MapId", name) || !readInteger(item, "Created", created) || !uuid || !app ||
      !account || !user || !name || !created) {
    return std::nullopt;
  }
  MapRecord m{*uuid, *app, *account, *user, *name, std::abs(*created), std::nullopt};
  std::optional<double> lon, lat, alt, hor, ver;
  if (readDouble(item, "Longitude", lon) && readDouble(item, "Latitude", lat) &&
      readDouble(item, "Altitude", alt) && readDouble(item, "HorizontalAccuracy", hor) &&
      readDouble(item, "VerticalAccuracy", ver) && lon && lat && alt && hor && ver) {
    m.location = GeoLocation{*lon, *lat, *alt, *hor, *ver};
  }
  return m;
}

std::optional<double> parseMatchValue(const std::string& text) {
  double v = 0;
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || ptr != text.data() + text.size() || !std::isfinite(v)) {
    return std::nullopt;
  }
  return v;
}

}  // namespace

std::string nameKey(const std::string& appId, const std::string& account,
                    const std::string& mapId) {
  return Json::array({appId, account, mapId}).dump();
}

std::string accountKey(const std::string& appId, const std::string& account) {
  return Json::array({appId, account}).dump();
}

std::optional<WriteFailure> MapStore::write(const std::vector<TableItem>& items) {
  for (const TableItem& t : items) {
    if (auto e = checkItemContents(t.item)) return WriteFailure{true, std::move(*e)};
  }
  if (auto e = store_.writeBatch(items)) return WriteFailure{false, std::move(*e)};
  return std::nullopt;
}

std::optional<WriteFailure> MapStore::addMap(const MapRecord& m) {
  Item main;
  putMapFields(main, m);
  main["Created"] = integerNumber(m.createdMicros);
  Item byName = main;
  byName["NameKey"] = str(nameKey(m.appId, m.account, m.mapId));
  byName["Created"] = integerNumber(-m.createdMicros);  // newest first in key order
  Item byAccount = main;
  byAccount["AccountKey"] = str(accountKey(m.appId, m.account));
  byAccount["Created"] = integerNumber(-m.createdMicros);
  return write({{kMapsTable, std::move(main)},
                {kMapsByAccountTable, std::move(byAccount)},
                {kMapsByNameTable, std::move(byName)}});
}

std::optional<MapRecord> MapStore::map(const std::string& uuid, std::optional<StoreError>* error) {
  auto item = store_.get(kMapsTable, {{"MapUuid", str(uuid)}}, error);
  if (!item) return std::nullopt;
  return mapFromItem(*item);
}

std::optional<MapRecord> MapStore::newestMap(const std::string& appId, const std::string& account,
                                             const std::string& mapId,
                                             std::optional<StoreError>* error) {
  std::optional<Item> start;
  // Newest first: the first readable item is the answer.
  for (int guard = 0; guard < 1000; ++guard) {
    QueryPage page =
        store_.query(kMapsByNameTable, str(nameKey(appId, account, mapId)), start, 16, error);
    if (error && *error) return std::nullopt;
    for (const Item& item : page.items) {
      if (auto m = mapFromItem(item)) return m;
    }
    if (!page.lastEvaluatedKey) break;
    start = std::move(page.lastEvaluatedKey);
  }
  return std::nullopt;
}

std::vector<MapRecord> MapStore::accountMaps(const std::string& appId, const std::string& account,
                                             std::optional<StoreError>* error) {
  std::vector<MapRecord> out;
  for (const Item& item :
       queryAll(store_, kMapsByAccountTable, str(accountKey(appId, account)), error)) {
    if (auto m = mapFromItem(item)) out.push_back(std::move(*m));
  }
  return out;
}

std::optional<StoreError> MapStore::addSession(const LocalizationSessionRecord& s) {
  Item item{{"SessionUuid", str(s.uuid)}, {"MapUuid", str(s.mapUuid)},
            {"AppId", str(s.appId)},      {"Account", str(s.account)},
            {"UserId", str(s.userId)},    {"Created", integerNumber(s.createdMicros)}};
  return store_.put(kLocalizationSessionsTable, std::move(item));
}

std::optional<LocalizationSessionRecord> MapStore::session(const std::string& uuid,
                                                           std::optional<StoreError>* error) {
  auto item = store_.get(kLocalizationSessionsTable, {{"SessionUuid", str(uuid)}}, error);
  if (!item) return std::nullopt;
  std::optional<std::string> id, map, app, account, user;
  std::optional<int64_t> created;
  // A session without an account belongs to nobody.
  if (!readString(*item, "SessionUuid", id) || !readString(*item, "MapUuid", map) ||
      !readString(*item, "AppId", app) || !readString(*item, "Account", account) ||
      !readString(*item, "UserId", user) || !readInteger(*item, "Created", created) || !id ||
      !map || !account) {
    return std::nullopt;
  }
  return LocalizationSessionRecord{
      *id, *map, app.value_or(""), *account, user.value_or(""), created.value_or(0)};
}

std::optional<WriteFailure> MapStore::place(const std::string& mapUuid,
                                            std::vector<PlacementRecord> placements) {
  // One writer per map at a time here, so that two requests moving the same asset cannot both
  // take it for new.
  std::lock_guard<std::mutex> lock(
      placementLocks_[std::hash<std::string>{}(mapUuid) % placementLocks_.size()]);
  std::vector<TableItem> items;
  for (PlacementRecord& p : placements) {
    std::optional<StoreError> error;
    auto old = store_.get(kPlacementsTable,
                          {{"MapUuid", str(mapUuid)}, {"AssetId", str(p.assetId)}}, &error);
    if (error) return WriteFailure{false, std::move(*error)};
    std::optional<int64_t> first;
    if (old && readInteger(*old, "FirstPlaced", first) && first) {
      p.firstPlacedMicros = *first;
    } else {
      p.firstPlacedMicros = uniqueMicros();
    }
    Item item{{"MapUuid", str(mapUuid)},
              {"AssetId", str(p.assetId)},
              {"X", doubleNumber(p.x)},
              {"Y", doubleNumber(p.y)},
              {"Z", doubleNumber(p.z)},
              {"Orientation", doubleNumber(p.orientation)},
              {"PlacementId", str(p.placementId)},
              {"Timestamp", doubleNumber(p.timestamp)},
              {"FirstPlaced", integerNumber(p.firstPlacedMicros)}};
    items.push_back({kPlacementsTable, std::move(item)});
  }
  return write(items);
}

std::vector<PlacementRecord> MapStore::placements(const std::string& mapUuid,
                                                  std::optional<StoreError>* error) {
  std::vector<PlacementRecord> out;
  for (const Item& item : queryAll(store_, kPlacementsTable, str(mapUuid), error)) {
    std::optional<std::string> asset, placementId;
    std::optional<double> x, y, z, ori, ts;
    std::optional<int64_t> first;
    if (!readString(item, "AssetId", asset) || !readDouble(item, "X", x) ||
        !readDouble(item, "Y", y) || !readDouble(item, "Z", z) ||
        !readDouble(item, "Orientation", ori) || !readInteger(item, "FirstPlaced", first) ||
        !asset || !x || !y || !z || !ori || !first) {
      continue;
    }
    readString(item, "PlacementId", placementId);
    readDouble(item, "Timestamp", ts);
    out.push_back({*asset, *x, *y, *z, *ori, placementId.value_or(""), ts.value_or(0), *first});
  }
  std::stable_sort(out.begin(), out.end(), [](const PlacementRecord& a, const PlacementRecord& b) {
    return a.firstPlacedMicros < b.firstPlacedMicros;
  });
  return out;
}

std::optional<TransformResultModel> MapStore::bestTransform(const std::string& sessionId,
                                                            const std::string& localizer,
                                                            std::optional<StoreError>* error) {
  std::optional<TransformResultModel> best;
  double bestValue = 0;
  for (const Item& item :
       queryAll(store_, TransformResultModel::kTableName, str(sessionId), error)) {
    auto r = TransformResultModel::fromItem(item);
    if (!r || r->localizer != localizer || r->suppress.value_or(false) || !r->matchValue ||
        !r->transform) {
      continue;
    }
    const auto value = parseMatchValue(*r->matchValue);
    if (!value) continue;
    // Items come in time order: on equal values the newer one wins.
    if (!best || *value >= bestValue) {
      best = std::move(r);
      bestValue = *value;
    }
  }
  return best;
}

std::optional<StoreError> MapStore::addTransform(const TransformResultModel& result) {
  return store_.put(TransformResultModel::kTableName, result.toItem());
}

}  // namespace omra::server
