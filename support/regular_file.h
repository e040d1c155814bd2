// Opening a file to read without ever blocking on one that is not a file.
//
// A FIFO named where a sample, a table or a project is expected would
// block an ordinary open until something writes to it; a device could do
// worse. Only regular files are read: the file is opened without
// blocking, checked, and only then handed over as a stream.
#pragma once

#include <cstdio>

// Opens `path` for reading ("r", "rb", "rt") when it is a regular file (a
// link to one counts). Null with errno set otherwise: EISDIR for a folder,
// EINVAL for anything else that is not a regular file.
FILE* openRegularFile(const char* path, const char* mode);
