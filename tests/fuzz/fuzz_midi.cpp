// A MIDI file through the import as tona import runs it: the track and
// channel listings, then the notes of each of the first tracks.
#include <cstdint>
#include <string>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "midi/midiman.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = scratchFile("song.mid", data, size);
  CMIDIMan midi;
  const size_t tracks = midi.getTrackList(path.c_str()).size();
  for (size_t track = 0; track < tracks && track < 4; ++track) {
    midi.getChannelList(path.c_str(), static_cast<int32_t>(track));
    CScaleMan scale;
    CNoteMan man(&scale);
    std::string signatures;
    if (midi.importMIDIFile(path.c_str(), static_cast<int32_t>(track), -1, &man, &signatures) >= 0) {
      scale.unserializeText(signatures.c_str());
    }
  }
  return 0;
}
