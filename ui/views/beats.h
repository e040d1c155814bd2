// The beats and measures of the song from its time-signature list, as
// the ruler and the roll draw them.
#pragma once

#include <cstdint>
#include <functional>

class CScaleMan;

// Calls `visit` for every beat starting in [from, to) ticks, in order:
// its tick, whether a measure begins there, and the measure's number
// (1 for the first measure of the song).
void forEachBeat(CScaleMan& scale, int64_t from, int64_t to,
                 const std::function<void(int64_t tick, bool measure, int number)>& visit);
