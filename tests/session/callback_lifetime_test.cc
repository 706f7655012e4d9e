// The host's callbacks stop with the session object: nothing reaches the host after destruction,
// whatever was in flight, and a callback under way on another thread is waited for.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "omrakit/session.h"
#include "src/session/callback_gate.h"
#include "tests/session/session_testutil.h"

namespace omra {
namespace {

using std::chrono::milliseconds;

TEST(CallbackGate, RunsUntilClosedAndWaitsForRunningCallbacks) {
  auto gate = std::make_shared<CallbackGate>();
  int calls = 0;
  std::function<void(int)> add =
      CallbackGate::wrap(gate, std::function<void(int)>([&](int n) { calls += n; }));
  add(2);
  EXPECT_EQ(calls, 2);

  // A callback in progress on another thread holds close() until it returns.
  std::atomic<bool> entered{false}, release{false}, finished{false};
  std::thread other([&] {
    gate->run([&] {
      entered = true;
      while (!release) std::this_thread::sleep_for(milliseconds(1));
      finished = true;
    });
  });
  while (!entered) std::this_thread::sleep_for(milliseconds(1));
  std::thread closer([&] { gate->close(); });
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_FALSE(finished);
  release = true;
  closer.join();  // returns only after the callback has finished
  EXPECT_TRUE(finished);
  other.join();

  add(5);
  EXPECT_EQ(calls, 2);
  EXPECT_FALSE(gate->run([] {}));
  EXPECT_TRUE(CallbackGate::wrap(gate, std::function<void(int)>()) == nullptr);
}

TEST(CallbackGate, ClosingFromInsideItsOwnCallbackDoesNotWait) {
  auto gate = std::make_shared<CallbackGate>();
  auto other = std::make_shared<CallbackGate>();
  bool afterClose = false;
  // Nested in another gate's callback too: only this gate's own depth is excused.
  other->run([&] {
    gate->run([&] {
      gate->close();
      afterClose = !gate->run([] {});
    });
  });
  EXPECT_TRUE(afterClose);
  EXPECT_TRUE(other->isOpen());
}

// A session whose every callback counts into shared counters that outlive it.
struct Counters {
  std::atomic<int> status{0}, assets{0}, progress{0}, objects{0}, stored{0}, maps{0};
  int total() const { return status + assets + progress + objects + stored + maps; }
};

std::unique_ptr<OmraSession> makeSession(TestEnv& t, ScriptedBackend& backend, SessionMode mode,
                                         const std::shared_ptr<Counters>& c,
                                         bool onMainQueue = false) {
  SessionOptions options;
  options.endpoints = backend.hosts();
  options.callbacksOnMainQueue = onMainQueue;
  return std::make_unique<OmraSession>(
      t.env, mode, "user", "map", "key", 800, 400, [c](std::vector<MapAsset>) { ++c->assets; },
      [c](int64_t) { ++c->progress; }, [c](MapStatus) { ++c->status; },
      [c](std::vector<DetectedObject>) { ++c->objects; }, options);
}

ArPlaneAnchor vertical(const std::string& id) {
  ArPlaneAnchor a;
  a.identifier = id;
  a.alignment = PlaneAlignment::kVertical;
  return a;
}

// Each case leaves a request (or a posted callback) in flight and destroys the session at once;
// the replies that land afterwards must reach no host code.
TEST(SessionLifetime, NoHostCallbackAfterDestruction) {
  struct Case {
    const char* name;
    SessionMode mode;
    bool waitForOpen;  // let the session open before the in-flight step
    bool onMainQueue;
    std::function<void(OmraSession&, const std::shared_ptr<Counters>&)> inFlight;
  };
  const Case cases[] = {
      {"create reply", SessionMode::mapping, false, false, nullptr},
      {"localization create reply", SessionMode::localization, false, false, nullptr},
      {"store placement", SessionMode::mapping, true, false,
       [](OmraSession& s, const std::shared_ptr<Counters>& c) {
         EXPECT_TRUE(
             s.storePlacement({MapAsset("chair", {1, 0, 0}, 0)}, [c](bool) { ++c->stored; }));
       }},
      {"nearby maps", SessionMode::mapping, true, false,
       [](OmraSession& s, const std::shared_ptr<Counters>& c) {
         EXPECT_TRUE(
             s.listNearbyMaps(std::nullopt, 1, 2, 0.1, 0.1, [c](std::vector<Map>) { ++c->maps; }));
       }},
      {"progress posted to the main queue", SessionMode::localization, true, true,
       [](OmraSession& s, const std::shared_ptr<Counters>&) { s.planeDetected(vertical("V1")); }},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    ScriptedBackend backend;
    TestEnv t;
    auto c = std::make_shared<Counters>();
    auto session = makeSession(t, backend, k.mode, c, k.onMainQueue);
    if (k.waitForOpen) {
      ASSERT_TRUE(t.pumpUntil([&] { return c->status > 0; }));
    }
    const int before = c->total();
    backend.setDelay(milliseconds(300));
    if (k.inFlight) k.inFlight(*session, c);
    session.reset();
    t.pumpFor(milliseconds(700));  // the replies land and their completions run
    EXPECT_EQ(c->total(), before);
  }
}

// The same session, kept alive, does deliver: the cases above are not vacuous.
TEST(SessionLifetime, LiveSessionDeliversTheSameCallbacks) {
  ScriptedBackend backend;
  TestEnv t;
  auto c = std::make_shared<Counters>();
  auto session = makeSession(t, backend, SessionMode::localization, c, /*onMainQueue=*/true);
  ASSERT_TRUE(t.pumpUntil([&] { return c->status == 1; }));
  session->planeDetected(vertical("V1"));
  EXPECT_EQ(c->progress, 0);  // posted, not yet run
  ASSERT_TRUE(t.pumpUntil([&] { return c->progress == 1; }));
  EXPECT_TRUE(
      session->listNearbyMaps(std::nullopt, 1, 2, 0.1, 0.1, [c](std::vector<Map>) { ++c->maps; }));
  ASSERT_TRUE(t.pumpUntil([&] { return c->maps == 1; }));
}

// Destroyed from another thread while the main queue runs a slow status callback: the destructor
// returns only after that callback has finished.
TEST(SessionLifetime, DestructionWaitsForACallbackUnderWay) {
  ScriptedBackend backend;
  TestEnv t;
  std::atomic<bool> inCallback{false}, callbackDone{false};
  SessionOptions options;
  options.endpoints = backend.hosts();
  auto session = std::make_unique<OmraSession>(
      t.env, SessionMode::mapping, "user", "map", "key", 800, 400, nullptr, nullptr,
      [&](MapStatus) {
        inCallback = true;
        std::this_thread::sleep_for(milliseconds(200));
        callbackDone = true;
      },
      nullptr, options);
  std::atomic<bool> destroyedWhileRunning{false};
  std::thread destroyer([&] {
    while (!inCallback) std::this_thread::sleep_for(milliseconds(1));
    session.reset();
    destroyedWhileRunning = !callbackDone;
  });
  t.pumpUntil([&] { return callbackDone.load(); });
  destroyer.join();
  EXPECT_TRUE(callbackDone);
  EXPECT_FALSE(destroyedWhileRunning);
}

}  // namespace
}  // namespace omra
