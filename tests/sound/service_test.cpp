// The request ring and the service thread.
#include <gtest/gtest.h>

#include "engine_fixture.h"
#include "sound/service.h"

namespace korvo {
namespace {

TEST(RequestRing, KeepsThirtyNineOverrunsOnTheFortiethAndDropsInIoTestMode) {
  RequestRing ring;
  SoundServiceRequest got;
  EXPECT_EQ(0, ring.queueGet(&got, 100));  // an empty wake-up
  for (int i = 0; i < 39; i++) {
    SoundServiceRequest r = ring.buildRequest(HANDLE_SND_CMD);
    r.id = i;
    ring.queuePut(r);
  }
  EXPECT_EQ(39, ring.pending());
  ASSERT_EQ(1, ring.queueGet(&got, 0));
  EXPECT_EQ(0, got.id);
  EXPECT_EQ(ring.buildRequest(DONE).requestId, got.requestId + 39);  // stamped in order

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

  // In I/O test mode a request is logged and dropped.
  ring.setTestIOonly(true);
  test::LogCapture trace(LEVEL_TRACE);
  ring.queuePut(ring.buildRequest(HANDLE_SND_CMD));
  EXPECT_TRUE(trace.contains("put req to queue"));
  EXPECT_EQ(1, ring.queueIsEmpty());
}

using ServiceThread = test::EngineFixture;

TEST_F(ServiceThread, PlaysQueuedCommandsAtTheSampleVolumeAndEnds) {
  openWithSet();
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
}

TEST_F(ServiceThread, JingleEndResumesMusicOnlyWithoutDucking) {
  settings.playMusicInLoops = 1;
  openWithSet("5");
  // Ducking on (the default type table has values below 100): music keeps playing.
  engine->handleSoundByType(1);
  engine->handleSoundByType(30);
  EXPECT_EQ(1, engine->musicIdPlaying());
  EXPECT_EQ(0, engine->pausedMusicId());

  // Ducking off: the jingle fades the music and its end brings it back.
  {
    auto lk = engine->lock();
    for (int t = 0; t < kAudioTypeCount; ++t) engine->index().setDuckingByType(t, 100);
  }
  ASSERT_TRUE(waitIdle(30));
  drain();
  engine->handleSoundByType(30);
  EXPECT_EQ(1, engine->pausedMusicId());
  ASSERT_TRUE(waitIdle(30));
  drain();
  EXPECT_EQ(1, engine->musicIdPlaying());
  EXPECT_EQ(0, engine->pausedMusicId());
}

// A finished report that meets a full ring is dropped and counted on the audio thread,
// which keeps the ring's pending requests; the service thread logs the count.
TEST_F(ServiceThread, HookOverrunIsCountedAndLoggedByTheServiceThread) {
  openWithSet();
  drain();
  for (int i = 0; i < RequestRing::kQueueSize - 1; i++) engine->ring().queuePut(engine->ring().buildRequest(DONE));
  ASSERT_EQ(RequestRing::kQueueSize - 1, engine->ring().pending());
  test::LogCapture cap;
  engine->handleSoundByType(10);
  ASSERT_TRUE(waitIdle(10));
  EXPECT_EQ(RequestRing::kQueueSize - 1, engine->ring().pending());
  EXPECT_FALSE(cap.contains("sound request ring"));  // nothing logged on the audio thread
  engine->startSoundServiceThread();
  EXPECT_TRUE(test::waitFor([&] { return cap.contains("sound request ring full: 1 reports of the audio thread lost"); }));
  engine->stopSoundServiceThread();
}

}  // namespace
}  // namespace korvo
