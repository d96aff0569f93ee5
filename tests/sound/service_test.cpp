// The request ring and the service thread.
#include <gtest/gtest.h>

#include "engine_fixture.h"
#include "sound/service.h"

namespace korvo {
namespace {

TEST(RequestRing, KeepsThirtyNineAndOverrunsOnTheFortieth) {
  RequestRing ring;
  for (int i = 0; i < 39; i++) {
    SoundServiceRequest r = ring.buildRequest(HANDLE_SND_CMD);
    r.id = i;
    ring.queuePut(r);
  }
  EXPECT_EQ(39, ring.pending());
  SoundServiceRequest got;
  ASSERT_EQ(1, ring.queueGet(&got, 0));
  EXPECT_EQ(0, got.id);
  EXPECT_EQ(HANDLE_SND_CMD, got.type);

  // Refill to 39 pending, then one more: the ring reads as empty, later posts start afresh.
  ring.queuePut(ring.buildRequest(STOP_ALL));
  EXPECT_EQ(39, ring.pending());
  test::LogCapture cap;
  ring.queuePut(ring.buildRequest(STOP_ALL));
  EXPECT_EQ(1, ring.queueIsEmpty());
  EXPECT_TRUE(cap.contains("sound request ring overrun, 40 requests lost"));
  SoundServiceRequest fresh = ring.buildRequest(SET_VOLUME);
  fresh.volume = 7;
  ring.queuePut(fresh);
  ASSERT_EQ(1, ring.queueGet(&got, 0));
  EXPECT_EQ(SET_VOLUME, got.type);
  EXPECT_EQ(7, got.volume);
}

TEST(RequestRing, StampsRequestIdsAndLogsPutAndGet) {
  RequestRing ring;
  const SoundServiceRequest a = ring.buildRequest(DONE);
  const SoundServiceRequest b = ring.buildRequest(DONE);
  EXPECT_EQ(a.requestId + 1, b.requestId);
  test::LogCapture cap(LEVEL_TRACE);
  SoundServiceRequest r = ring.buildRequest(HANDLE_SND_CMD);
  r.id = 42;
  ring.queuePut(r);
  SoundServiceRequest got;
  ring.queueGet(&got, 0);
  EXPECT_TRUE(cap.contains(strFormat("put req to queue: reqId: %d, type: HANDLE_SND_CMD, id: 42", r.requestId)));
  EXPECT_TRUE(cap.contains(strFormat("get req from queue: reqId: %d, type: HANDLE_SND_CMD, id: 42", r.requestId)));
}

TEST(RequestRing, EmptyWakeUpReturnsZeroAndIoTestModeDrops) {
  RequestRing ring;
  SoundServiceRequest got;
  EXPECT_EQ(0, ring.queueGet(&got, 100));
  ring.setTestIOonly(true);
  test::LogCapture cap(LEVEL_TRACE);
  ring.queuePut(ring.buildRequest(HANDLE_SND_CMD));
  EXPECT_TRUE(cap.contains("put req to queue"));
  EXPECT_EQ(1, ring.queueIsEmpty());
}

TEST(RequestRing, NamesEveryServiceType) {
  EXPECT_STREQ("TERM_SERVICE_THREAD", serviceTypeName(TERM_SERVICE_THREAD));
  EXPECT_STREQ("CHANNEL_FINISHED", serviceTypeName(1));
  EXPECT_STREQ("?", serviceTypeName(9));
}

using ServiceThread = test::EngineFixture;

TEST_F(ServiceThread, PlaysQueuedCommandsAtTheSampleVolumeAndEnds) {
  makeSet("one");
  openEngine();
  loadSets();
  test::LogCapture cap;
  engine->startSoundServiceThread();
  EXPECT_TRUE(engine->serviceThreadRunning());
  // A queued override volume is not used: the sample plays at master + gains.
  SoundServiceRequest r = engine->ring().buildRequest(HANDLE_SND_CMD);
  r.id = 10;
  r.volume = 80;
  engine->ring().queuePut(r);
  ASSERT_TRUE(test::waitFor([&] { return !onsets.get(10).empty(); }));
  EXPECT_TRUE(cap.contains("vol: 50->100 'sfx' 'beep'"));
  // SET_VOLUME, STOP_ALL and unknown types go through the same thread.
  SoundServiceRequest v = engine->ring().buildRequest(SET_VOLUME);
  v.volume = 90;
  engine->ring().queuePut(v);
  SoundServiceRequest odd = engine->ring().buildRequest(DONE);
  odd.type = 77;
  engine->ring().queuePut(odd);
  engine->ring().queuePut(engine->ring().buildRequest(STOP_ALL));
  ASSERT_TRUE(test::waitFor([&] { return settings.volume.load() == 90 && !engine->isSamplePlaying(10); }));
  engine->stopSoundServiceThread();
  EXPECT_FALSE(engine->serviceThreadRunning());
  EXPECT_TRUE(cap.contains("start sound service thread"));
  EXPECT_TRUE(cap.contains("end sound service thread"));
}

TEST_F(ServiceThread, JingleEndResumesMusicOnlyWithoutDucking) {
  makeSet("one");
  openEngine("", "5");
  loadSets();
  // Ducking on (the default type table has values below 100): music keeps playing.
  ASSERT_EQ(1, engine->index().duckingIsActive);
  engine->handleSoundByType(1);
  engine->handleSoundByType(30);
  EXPECT_EQ(1, engine->musicIdPlaying());
  EXPECT_EQ(0, engine->pausedMusicId());

  // Ducking off: the jingle fades the music and its end brings it back.
  {
    auto lk = engine->lock();
    for (auto& d : engine->index().duckingByType) d = 100;
    engine->index().setupDuckingConfig();
  }
  ASSERT_TRUE(waitIdle(30));
  drain();
  engine->handleSoundByType(30);
  EXPECT_EQ(1, engine->pausedMusicId());
  ASSERT_TRUE(waitIdle(30));
  test::LogCapture cap;
  drain();
  EXPECT_TRUE(cap.contains("Playing Music id=1"));
  EXPECT_EQ(1, engine->musicIdPlaying());
  EXPECT_EQ(0, engine->pausedMusicId());
}

}  // namespace
}  // namespace korvo
