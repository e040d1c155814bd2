// Block reads and writes of multi-byte values in either byte order, for
// big-endian files (MIDI, frequency tables) on a little-endian machine.
#pragma once

#include <cstddef>
#include <cstdio>

// Reverses n bytes in place.
void brevert(void* bytes, size_t n);

// Like fwrite; with `swap`, each of the count items of `size` bytes is
// written byte by byte in reverse order, an item stopping at the first
// write error. Returns the number of whole items written.
long fwritee(const void* data, size_t size, size_t count, FILE* file, bool swap);

// Like fread; with `swap`, each item is read byte by byte into reverse
// order. Unswapped it returns the item count read. Swapped it returns
// count, or, when the file ends inside the read, the negated total byte
// count -(count x size): callers test for the end of file by sign.
long freade(void* data, size_t size, size_t count, FILE* file, bool swap);
