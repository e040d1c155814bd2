// CVoiceProfile: how a voice bank folder describes itself, from its
// "character.txt" (name, picture, sample sound, charset) and "readme.txt".
// Texts come back as UTF-8; the files are Shift_JIS unless they say
// otherwise.
#pragma once

#include <cstdint>

#include "support/cstr.h"

class CVoiceProfile {
 public:
  // Reads the folder's character.txt; a null or empty path reads nothing.
  explicit CVoiceProfile(const char* folder);

  const char* folder() const { return folder_.c_str(); }                // ends in "/"
  const char* imageFilePath() const { return imagePath_.c_str(); }      // or null
  const char* voiceName() const { return voiceName_.c_str(); }          // or the folder's name
  const char* samplePath() const { return samplePath_.c_str(); }        // or null
  bool isValid() const { return valid_ != 0; }

  // The readme, lines joined with LF; "" when there is none.
  const char* readmeText();
  // The lines of character.txt other than image=, name= and sample=.
  const char* profileText();

 private:
  // Reads a text file of the folder into cache, lines joined with LF,
  // leaving out the image=, name= and sample= lines when asked. Lines are
  // converted from Shift_JIS unless the first line mentions UTF8.
  const char* readLines(const char* file, bool skipKeys, cstr* cache);

  cstr folder_;
  cstr imagePath_;
  cstr voiceName_;
  int32_t valid_ = 0;
  cstr readme_;
  cstr profile_;
  cstr samplePath_;
};
