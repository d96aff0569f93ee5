// The loaders of the set types that are not directory trees: the set loader hands
// them the set, they fill samplesMap.
#include "base/log.h"
#include "soundsets/altsound.h"
#include "soundsets/sample_index.h"
#include "soundsets/xsnd.h"

namespace korvo {

int SampleIndex::loadContainer(SoundSet& set) {
  if (readSamplesFromBinary(*this, set.basedir) != 0) {
    LOG(LEVEL_ERROR, "cannot load soundset %s", set.basedir.c_str());
    clearSamples();
  }
  return 0;
}

int SampleIndex::loadAltSound(SoundSet& set) {
  if (readSamplesFromCsv(*this, set.basedir) != 0) {
    // The previous set's records must not stay under this set's name.
    LOG(LEVEL_ERROR, "cannot load soundset %s", set.basedir.c_str());
    clearSamples();
  }
  return 0;
}

}  // namespace korvo
