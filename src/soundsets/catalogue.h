// The catalogue of the sound sets installed side by side under the base directory,
// numbered from 1 in directory order, at most 10.
//
// Concurrency: owned by the sound engine next to the sample index and guarded by the
// engine mutex (the web service lists, refreshes and removes sets; the engine
// switches between them).
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "soundsets/model.h"

namespace korvo {

class SoundSetCatalogue {
 public:
  static constexpr int kMaxSoundSets = 10;

  SoundSetCatalogue();

  // Rebuilds the table from `base`. An unreadable base gives an empty catalogue.
  void searchSoundSets(const std::string& base);
  bool isValidSoundSetIndex(int number) const { return number >= 1 && number <= maxSoundSets; }
  // 1 for an invalid number, else 0. PINSOUND: the directory is deleted, XSNDFILE:
  // the file; ALTSOUND and ZIPFILE sets only leave the catalogue. The table is then
  // rebuilt and playback switched to set 1 (through switchToSoundSet).
  int removeSoundSet(int number, const std::string& base);

  // The set with this number, or null for an invalid one.
  SoundSet* get(int number);
  const SoundSet* get(int number) const;
  // `settings.soundSet` clamped to 1..maxSoundSets (1 when the catalogue is empty).
  int clampIndex(int number) const;

  // Index 0 is never used; 1..maxSoundSets are the sets found.
  std::vector<SoundSet> soundSets;
  int maxSoundSets = 0;

  // The engine's switch operation; called by removeSoundSet with set number 1.
  std::function<void(int)> switchToSoundSet;
};

}  // namespace korvo
