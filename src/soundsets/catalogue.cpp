#include "soundsets/catalogue.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "soundsets/altsound.h"
#include "soundsets/dir_listing.h"

namespace korvo {

SoundSetCatalogue::SoundSetCatalogue() : soundSets(1) {}

void SoundSetCatalogue::searchSoundSets(const std::string& base) {
  LOG(LEVEL_INFO, "searching for soundsets at: %s", base.c_str());
  soundSets.clear();
  soundSets.resize(1);
  maxSoundSets = 0;
  DirListing dir(base);
  if (!dir.ok()) {
    LOG(LEVEL_ERROR, "failed open dir %s", base.c_str());
    return;
  }
  for (const auto& e : dir.entries()) {
    if (maxSoundSets >= kMaxSoundSets) break;
    if (e.name.empty() || e.name.front() == '.') continue;
    std::string path = base + "/" + e.name;
    SoundSet__SoundSetType type;
    if (dir.isRegularFile(e)) {
      if (!e.name.ends_with(".xsnd")) continue;
      type = XSNDFILE;
    } else if (dir.isDirectory(e)) {
      if (isAltsoundDir(path))
        type = ALTSOUND;
      else if (isDirectory(path + "/music"))
        type = PINSOUND;
      else
        continue;
    } else {
      continue;
    }
    SoundSet set;
    set.name = e.name;
    set.basedir = path;
    set.type = type;
    soundSets.push_back(std::move(set));
    ++maxSoundSets;
    LOG(LEVEL_INFO, "found soundset %d, type: %d at: %s", maxSoundSets, static_cast<int>(type), path.c_str());
  }
  LOG(LEVEL_INFO, "maxSoundSets: %d", maxSoundSets);
}

SoundSet* SoundSetCatalogue::get(int number) {
  return isValidSoundSetIndex(number) ? &soundSets[static_cast<std::size_t>(number)] : nullptr;
}

const SoundSet* SoundSetCatalogue::get(int number) const {
  return isValidSoundSetIndex(number) ? &soundSets[static_cast<std::size_t>(number)] : nullptr;
}

int SoundSetCatalogue::clampIndex(int number) const {
  if (number > maxSoundSets) number = maxSoundSets;
  return number < 1 ? 1 : number;
}

int SoundSetCatalogue::removeSoundSet(int number, const std::string& base) {
  if (!isValidSoundSetIndex(number)) {
    LOG(LEVEL_WARN, "remove soundset: %d is not a valid soundset", number);
    return 1;
  }
  const SoundSet& set = soundSets[static_cast<std::size_t>(number)];
  LOG(LEVEL_INFO, "removing soundset %d (%s)", number, set.basedir.c_str());
  std::error_code ec;
  switch (set.type) {
    case PINSOUND:
      // remove_all does not follow a symbolic link: a linked set loses only its link.
      std::filesystem::remove_all(set.basedir, ec);
      if (ec) LOG(LEVEL_ERROR, "cannot remove %s: %s", set.basedir.c_str(), ec.message().c_str());
      break;
    case XSNDFILE:
      if (unlink(set.basedir.c_str()) != 0)
        LOG(LEVEL_ERROR, "cannot remove %s: %s", set.basedir.c_str(), strerror(errno));
      break;
    default:
      break;  // ALTSOUND and ZIPFILE: their files stay on disk.
  }
  if (set.type == ALTSOUND || set.type == ZIPFILE) {
    // Only the entry goes; a rescan would find the directory again, so drop it here.
    soundSets.erase(soundSets.begin() + number);
    --maxSoundSets;
  } else {
    searchSoundSets(base);
  }
  if (switchToSoundSet) switchToSoundSet(1);
  return 0;
}

}  // namespace korvo
