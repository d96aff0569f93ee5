// What the sound, bus and web fixtures share when they start an engine.
#pragma once

#include <filesystem>
#include <memory>

#include "core/settings.h"
#include "sound/sdl_sound.h"
#include "support/testutil.h"

namespace korvo::test {

// The global settings afresh, at full volume, with no boot sound and no preload announcement.
inline void initQuietSettings() {
  initSettings(&settings);
  settings.playBoot = 0;
  settings.sayPreload = 0;
  settings.volume = 100;
}

// An engine (not yet opened) on the repository's system sounds, keeping its va.ini in
// `dir` and announcing no set switch.
inline std::unique_ptr<SoundEngine> newTestEngine(const std::filesystem::path& dir) {
  auto engine = std::make_unique<SoundEngine>();
  engine->setSoundsDir((sourceDir() / "sounds").string());
  engine->setTransientSettingsFile((dir / "va.ini").string());
  engine->setAnnounceSoundSet(false);
  return engine;
}

}  // namespace korvo::test
