#include "server/map_store.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <functional>
#include <queue>
#include <unordered_set>

#include "omrakit/platform/http_client.h"
#include "server/account.h"
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

// The owner part of a cell key: app and account hashed together, short enough that every index
// entry (which carries its key) stays small. The account hash is fixed-length, so the joined text
// is unambiguous.
std::string cellOwner(const std::string& appId, const std::string& account) {
  return accountHash(account + "\n" + appId).substr(0, 32);
}

std::string cellKeyOf(const std::string& owner, const GridCell& cell) {
  return owner + "/" + cellText(cell);
}

std::string numberText(double v) {
  char buf[32];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, ec == std::errc() ? end : buf);
}

// A nearby-index entry carries what the listing answers, the place as one text
// "lat,long,alt,horizontal,vertical": the listing reads many entries, and small ones read fast.
std::vector<TableItem> cellEntries(const MapRecord& m) {
  std::vector<TableItem> out;
  if (!m.location) return out;
  const GeoLocation& l = *m.location;
  const std::string place = numberText(l.latitude) + "," + numberText(l.longitude) + "," +
                            numberText(l.altitude) + "," + numberText(l.horizontalAccuracy) + "," +
                            numberText(l.verticalAccuracy);
  const std::string owner = cellOwner(m.appId, m.account);
  for (int level = 0; level < kGridLevels; ++level) {
    Item item{{"CellKey", str(cellKeyOf(owner, cellOf(level, l.latitude, l.longitude)))},
              {"MapUuid", str(m.uuid)},
              {"UserId", str(m.userId)},
              {"MapId", str(m.mapId)},
              {"Place", str(place)}};
    out.push_back({kMapsByCellTable, std::move(item)});
  }
  return out;
}

std::optional<GeoLocation> parsePlace(std::string_view text) {
  double v[5];
  for (int i = 0; i < 5; ++i) {
    const size_t cut = i < 4 ? text.find(',') : text.size();
    if (cut == std::string_view::npos) return std::nullopt;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + cut, v[i]);
    if (ec != std::errc() || ptr != text.data() + cut || !std::isfinite(v[i])) return std::nullopt;
    text.remove_prefix(std::min(text.size(), cut + 1));
  }
  if (std::abs(v[0]) > 90 || std::abs(v[1]) > 180) return std::nullopt;
  return GeoLocation{v[1], v[0], v[2], v[3], v[4]};
}

// A nearby-index entry as read: views into the item, copied only for the maps the page keeps
// (a listing reads a few hundred entries to keep a hundred).
struct CellEntry {
  std::string_view uuid, userId, mapId;
  GeoLocation at;
};

std::optional<std::string_view> stringOf(const Item& item, const char* name) {
  const auto it = item.find(name);
  if (it == item.end() || it->second.type != AttributeValue::Type::kString) return std::nullopt;
  return it->second.text;
}

// The listing's order: nearest first, equal distances by UUID.
bool listedBefore(double metres, std::string_view uuid, double otherMetres,
                  std::string_view otherUuid) {
  return metres < otherMetres || (metres == otherMetres && uuid < otherUuid);
}

std::optional<CellEntry> cellEntryOf(const Item& item) {
  const auto uuid = stringOf(item, "MapUuid"), user = stringOf(item, "UserId"),
             name = stringOf(item, "MapId"), place = stringOf(item, "Place");
  if (!uuid || !user || !name || !place) return std::nullopt;
  const auto at = parsePlace(*place);
  if (!at) return std::nullopt;
  return CellEntry{*uuid, *user, *name, *at};
}

// Pages of one query, up to at most `most` items (0: all); true when more remain past them.
bool readCell(RecordStore& store, const std::string& key, size_t most, std::vector<Item>& out,
              std::optional<StoreError>* error) {
  std::optional<Item> start;
  for (;;) {
    const int limit = most == 0 ? 0 : static_cast<int>(most - out.size());
    QueryPage page = store.query(kMapsByCellTable, str(key), start, limit, error);
    if (error && *error) return false;
    for (Item& item : page.items) out.push_back(std::move(item));
    if (!page.lastEvaluatedKey) return false;
    if (most != 0 && out.size() >= most) return true;
    start = std::move(page.lastEvaluatedKey);
  }
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

std::string cellKey(const std::string& appId, const std::string& account, const GridCell& cell) {
  return cellKeyOf(cellOwner(appId, account), cell);
}

std::string nearbyTokenText(const NearbyCursor& cursor) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, cursor.metres);
  return std::string(buf, ec == std::errc() ? end : buf) + "~" + cursor.uuid;
}

std::optional<NearbyCursor> parseNearbyToken(std::string_view text) {
  const size_t cut = text.find('~');
  if (cut == std::string_view::npos) return std::nullopt;
  NearbyCursor c;
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + cut, c.metres);
  if (ec != std::errc() || ptr != text.data() + cut || !std::isfinite(c.metres) || c.metres < 0) {
    return std::nullopt;
  }
  c.uuid = std::string(text.substr(cut + 1));
  constexpr size_t kMaxUuid = 64;
  if (c.uuid.empty() || c.uuid.size() > kMaxUuid) return std::nullopt;
  for (char ch : c.uuid) {
    if (!std::isalnum(static_cast<unsigned char>(ch)) && ch != '-') return std::nullopt;
  }
  return c;
}

std::optional<WriteFailure> MapStore::write(const std::vector<TableItem>& items) {
  for (const TableItem& t : items) {
    if (auto e = checkItemContents(t.item)) return WriteFailure{true, std::move(*e)};
  }
  if (auto e = store_.writeBatch(items)) return WriteFailure{false, std::move(*e)};
  return std::nullopt;
}

std::optional<WriteFailure> MapStore::addMap(const MapRecord& m) {
  const std::string key = accountKey(m.appId, m.account);
  bool first = false;
  if (!knownIndexed(key)) {
    // No map of the account yet: its index starts complete. A failed look is no harm: the first
    // listing indexes the older maps then.
    std::optional<StoreError> e;
    first = store_.query(kMapsByAccountTable, str(key), std::nullopt, 1, &e).items.empty() && !e;
  }
  auto failure = write(mapItems(m, first));
  if (!failure && first) rememberIndexed(key);
  return failure;
}

std::vector<TableItem> MapStore::mapItems(const MapRecord& m, bool firstOfAccount) {
  Item main;
  putMapFields(main, m);
  main["Created"] = integerNumber(m.createdMicros);
  Item byName = main;
  byName["NameKey"] = str(nameKey(m.appId, m.account, m.mapId));
  byName["Created"] = integerNumber(-m.createdMicros);  // newest first in key order
  Item byAccount = main;
  byAccount["AccountKey"] = str(accountKey(m.appId, m.account));
  byAccount["Created"] = integerNumber(-m.createdMicros);
  std::vector<TableItem> items{{kMapsTable, std::move(main)},
                               {kMapsByAccountTable, std::move(byAccount)},
                               {kMapsByNameTable, std::move(byName)}};
  for (TableItem& t : cellEntries(m)) items.push_back(std::move(t));
  if (firstOfAccount) {
    items.push_back({kNearbyIndexedTable, {{"AccountKey", str(accountKey(m.appId, m.account))}}});
  }
  return items;
}

bool MapStore::knownIndexed(const std::string& key) {
  std::lock_guard lock(indexedMu_);
  return indexed_.contains(key);
}

void MapStore::rememberIndexed(const std::string& key) {
  constexpr size_t kMaxRemembered = 100000;  // past it they are looked up again
  std::lock_guard lock(indexedMu_);
  if (indexed_.size() >= kMaxRemembered) indexed_.clear();
  indexed_.insert(key);
}

std::optional<StoreError> MapStore::ensureNearbyIndexed(const std::string& appId,
                                                        const std::string& account) {
  const std::string key = accountKey(appId, account);
  if (knownIndexed(key)) return std::nullopt;
  std::optional<StoreError> e;
  if (store_.get(kNearbyIndexedTable, {{"AccountKey", str(key)}}, &e)) {
    rememberIndexed(key);
    return std::nullopt;
  }
  if (e) return e;
  // Re-writing an entry writes the same item: two servers doing this at once do no harm.
  const std::vector<MapRecord> maps = accountMaps(appId, account, &e);
  if (e) return e;
  // Nothing to index, and a listing writes nothing: its first map marks the account.
  if (maps.empty()) return std::nullopt;
  constexpr size_t kMapsPerBatch = 8;
  std::vector<TableItem> batch;
  for (size_t i = 0; i < maps.size(); ++i) {
    for (TableItem& t : cellEntries(maps[i])) batch.push_back(std::move(t));
    if (batch.size() >= kMapsPerBatch * kGridLevels || i + 1 == maps.size()) {
      if (auto f = write(batch)) return f->error;
      batch.clear();
    }
  }
  if (auto f = store_.put(kNearbyIndexedTable, {{"AccountKey", str(key)}})) return f;
  rememberIndexed(key);
  return std::nullopt;
}

NearbyPage MapStore::nearbyMaps(const NearbyQuery& q, std::optional<StoreError>* error) {
  // A cell holding more entries than its probe is read through its 16 children instead. Cells
  // two levels or more above the finest (300 m and wider) that hold more than a few maps are
  // nearly always crowded at the scale of a page, and the entries a probe reads there are read
  // again below: their probe is short.
  constexpr size_t kFineProbe = 16, kCoarseProbe = 4;
  // The search starts at the finest level whose cells covering the box are at most this many.
  constexpr size_t kStartCells = 256;
  struct Pending {
    double minMetres;
    GridCell cell;
  };
  auto fartherCell = [](const Pending& a, const Pending& b) { return a.minMetres > b.minMetres; };
  std::priority_queue<Pending, std::vector<Pending>, decltype(fartherCell)> cells(fartherCell);
  const GeoBox& box = q.box;
  std::vector<GridCell> start = cellsCovering(box, 0, SIZE_MAX);
  for (int level = 1; level < kGridLevels; ++level) {
    std::vector<GridCell> finer = cellsCovering(box, level, kStartCells);
    if (finer.empty()) break;
    start = std::move(finer);
  }
  for (const GridCell& c : start) {
    cells.push({cellMinMetres(c, box.latitude, box.longitude), c});
  }

  const std::string owner = cellOwner(q.appId, q.account);
  NearbyPage out;
  const size_t keep = q.limit + 1;  // one past the page tells whether another follows
  // Candidates are views into the entries read, which stay put until the page is copied out.
  struct Candidate {
    double metres;
    CellEntry entry;
  };
  auto nearer = [](const Candidate& a, const Candidate& b) {
    return listedBefore(a.metres, a.entry.uuid, b.metres, b.entry.uuid);
  };
  std::vector<Candidate> best;                // a max-heap under nearer: the farthest kept on top
  std::unordered_set<std::string_view> seen;  // maps offered to best (coarser cells repeat them)
  std::vector<std::vector<Item>> read;        // every cell's entries, kept while views point in
  while (!cells.empty()) {
    const Pending p = cells.top();
    cells.pop();
    if (best.size() == keep && p.minMetres > best.front().metres) break;
    if (q.after && cellMaxMetres(p.cell, box.latitude, box.longitude) < q.after->metres) {
      continue;  // all of it went out on earlier pages
    }
    std::vector<Item>& items = read.emplace_back();
    const bool finest = p.cell.level == kGridFinestLevel;
    const size_t probe = p.cell.level < kGridFinestLevel - 1 ? kCoarseProbe : kFineProbe;
    const bool crowded =
        readCell(store_, cellKeyOf(owner, p.cell), finest ? 0 : probe + 1, items, error);
    if (error && *error) return {};
    out.itemsRead += items.size();
    ++out.cellsRead;
    // A crowded cell's first entries are real maps too: taking them tightens the bound early.
    for (const Item& item : items) {
      const std::optional<CellEntry> m = cellEntryOf(item);
      if (!m || !box.contains(m->at.latitude, m->at.longitude)) continue;
      const double metres =
          haversineMetres(box.latitude, box.longitude, m->at.latitude, m->at.longitude);
      // Cheap refusals first: most entries a listing reads are too far for its page.
      if (best.size() == keep &&
          !listedBefore(metres, m->uuid, best.front().metres, best.front().entry.uuid)) {
        continue;
      }
      if (q.after && !listedBefore(q.after->metres, q.after->uuid, metres, m->uuid)) continue;
      if (q.userId && m->userId != *q.userId) continue;
      if (!seen.emplace(m->uuid).second) continue;
      if (best.size() < keep) {
        best.push_back({metres, *m});
        std::push_heap(best.begin(), best.end(), nearer);
      } else {
        std::pop_heap(best.begin(), best.end(), nearer);
        best.back() = {metres, *m};
        std::push_heap(best.begin(), best.end(), nearer);
      }
    }
    if (crowded || items.size() > probe) {
      for (const GridCell& child : childrenOf(p.cell)) {
        if (cellMeetsBox(child, box)) {
          const double d = cellMinMetres(child, box.latitude, box.longitude);
          if (best.size() < keep || d <= best.front().metres) cells.push({d, child});
        }
      }
    }
  }
  std::sort_heap(best.begin(), best.end(), nearer);
  if (best.size() > q.limit) {
    best.resize(q.limit);
    out.next = NearbyCursor{best.back().metres, std::string(best.back().entry.uuid)};
  }
  out.maps.reserve(best.size());
  for (const Candidate& c : best) {
    const CellEntry& e = c.entry;
    out.maps.push_back({MapRecord{std::string(e.uuid), q.appId, q.account, std::string(e.userId),
                                  std::string(e.mapId), 0, e.at},
                        c.metres});
  }
  return out;
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
