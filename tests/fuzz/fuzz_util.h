// Shared by the fuzz targets: inputs handed to readers that take a path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Writes data to `name` in a folder of this process (made once, removed
// at exit) and returns the path.
std::string scratchFile(const char* name, const uint8_t* data, size_t size);
// The folder itself, ending in "/".
const std::string& scratchFolder();
