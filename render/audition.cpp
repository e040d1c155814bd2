#include "render/audition.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "engine/ctonm2.h"
#include "render/cache.h"
#include "render/resampler.h"
#include "voicebank/voiceset.h"

std::vector<int16_t> Audition::sing(cvoiceset* voices, const char* voiceDir, const NoteData& note, double lengthMs,
                                    std::string* error) {
  std::vector<int16_t> clip;
  if (ctonm2::is_r(note.Lyric)) {
    *error = "a rest has no sound";
    return clip;
  }
  VoiceData* entry = voices != nullptr ? voices->get_voicedata(nullptr, note.Lyric, note.NoteNum) : nullptr;
  if (entry == nullptr) {
    *error = std::string("no voice for \"") + note.Lyric + "\"";
    return clip;
  }
  const double velocity = std::isnan(note.Velocity) ? 100.0 : note.Velocity;
  const double consonant = std::max(0.0, static_cast<double>(entry->preuttr)) * std::pow(2.0, 1.0 - velocity / 100.0);
  const double total = std::min(kMaxMs, consonant + std::max(0.0, lengthMs));
  const std::string path = std::string(voiceDir != nullptr ? voiceDir : "") + entry->filename;

  NoteData alone;
  memset(&alone, 0, sizeof alone);
  alone.NoteNum = note.NoteNum;
  alone.Velocity = static_cast<float>(velocity);
  alone.Intensity = note.Intensity;
  alone.Modulation = note.Modulation;
  memcpy(alone.Flags, note.Flags, sizeof alone.Flags);
  alone.Flags[sizeof alone.Flags - 1] = '\0';
  alone.VoiceFile = entry->filename;
  // Everything that shapes the clip, the files as the render cache sees
  // them (the sample and its tables).
  auto keyOf = [&] {
    markRenderInputs(&alone, total, path);
    char head[160];
    snprintf(head, sizeof head, "|%d|%.3f|%d|%d|%.3f|%.3f|%.3f|%08x|", note.NoteNum, velocity, note.Intensity,
             note.Modulation, entry->offset, entry->fixed, entry->blank, alone.reserved);
    return path + head + alone.Flags;
  };
  const std::string key = keyOf();
  for (const auto& kept : kept_) {
    if (kept.first == key) {
      ++reused_;
      return kept.second;
    }
  }
  init_render(44100);
  int32_t count = 0;
  ResampError why = ResampError::kNone;
  // A little more than wanted: the resampler's end is ragged.
  double* samples = resamp(path.c_str(), &alone, static_cast<float>(total + 35.0), &count, 120.0f, &why);
  if (samples == nullptr) {
    *error = std::string("cannot sing \"") + note.Lyric + "\": " + resampErrorText(why);
    return clip;
  }
  const int32_t wanted = std::min(count, static_cast<int32_t>(std::lround(total * 44.1)));
  clip.resize(static_cast<size_t>(std::max(wanted, 0)));
  const double fadeIn = kFadeInMs * 44.1, fadeOut = kFadeOutMs * 44.1;
  for (int32_t k = 0; k < wanted; ++k) {
    double level = 1.0;
    if (k < fadeIn) level = k / fadeIn;
    if (wanted - 1 - k < fadeOut) level = std::min(level, (wanted - 1 - k) / fadeOut);
    clip[static_cast<size_t>(k)] = static_cast<int16_t>(std::lround(std::clamp(samples[k] * level, -32767.0, 32767.0)));
  }
  free(samples);
  ++rendered_;
  kept_.emplace_front(keyOf(), clip);  // the resampler may have made the tables
  if (kept_.size() > kKeep) kept_.pop_back();
  return clip;
}
