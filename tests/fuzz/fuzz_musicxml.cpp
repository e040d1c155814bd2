// A score through the MusicXML import as tona import runs it: the parts
// listed, then every voice and the first two verses of the first parts;
// what was read goes back out through the export.
#include <cstdint>
#include <string>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "midi/musicxml.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A container when it starts like a zip file, else the score's text.
  const bool zip = size >= 2 && data[0] == 'P' && data[1] == 'K';
  const std::string path = scratchFile(zip ? "song.mxl" : "song.musicxml", data, size);
  CMusicXml score;
  if (!score.load(path.c_str())) return 0;
  const size_t parts = score.parts().size();
  for (size_t part = 0; part < parts && part < 3; ++part) {
    for (int32_t voice : {0, 2}) {
      for (int32_t verse : {1, 2}) {
        CScaleMan scale;
        CNoteMan man(&scale);
        std::string signatures;
        if (score.importPart(static_cast<int32_t>(part), voice, verse, &man, &signatures) < 0) continue;
        scale.unserializeText(signatures.c_str());
        if (part == 0 && voice == 0 && verse == 1) {
          std::string error;
          CMusicXml::write((scratchFolder() + "back.musicxml").c_str(), &man, &error);
        }
      }
    }
  }
  return 0;
}
