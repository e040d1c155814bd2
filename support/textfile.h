// What the text files users share need before they are read: a UTF-8
// byte-order mark skipped, and, where a file names no character set, its
// set decided by its bytes.
#pragma once

#include <cstddef>
#include <cstdio>

// Skips a UTF-8 byte-order mark at the current position (the start of a
// file just opened); returns true when there was one.
bool skipByteOrderMark(FILE* file);

// True when the bytes are valid UTF-8 and at least one is above 0x7F (a
// text of ASCII alone reads the same in either set).
bool looksLikeUtf8(const char* data, size_t length);
// The same for a whole file (false when it cannot be read).
bool fileLooksLikeUtf8(const char* path);
