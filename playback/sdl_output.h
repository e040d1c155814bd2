// The output device through SDL, which reaches PipeWire, PulseAudio or
// ALSA, whichever the system runs (and has dummy and disk drivers for
// machines without a sound card). Built apart from the core library: only
// the programs that play link SDL.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "playback/audioout.h"

// Opens the named output device (null or empty: the default one) as a
// 44100 Hz stream of 32-bit floats, two channels asked for; SDL converts
// where the hardware runs otherwise. The device starts paused. Null, with
// a one-line reason in *error, when there is none.
std::unique_ptr<AudioDevice> openAudioDevice(const char* name, std::string* error);

// The names of the output devices SDL sees; *error when the audio
// system cannot be started.
std::vector<std::string> listAudioDevices(std::string* error);
