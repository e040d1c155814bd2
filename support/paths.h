// Paths as text: made absolute, made relative to a folder, normalised.
// Nothing here touches the file system except getcwd for a relative start.
#pragma once

#include <string>

// "/a/b/../c/./d" -> "/a/c/d"; a relative path is first put under the
// current folder. "" stays "".
std::string absolutePath(const std::string& path);
// `path` (absolute or relative to `folder`) as an absolute path.
std::string absoluteFrom(const std::string& folder, const std::string& path);
// `path` relative to `folder` ("track.wav", "../music/track.wav"); both are
// made absolute first. "" when path is "".
std::string relativeTo(const std::string& folder, const std::string& path);
// The folder of a file's path: "/a/b/song.snt" -> "/a/b"; "song.snt" -> ".".
std::string folderOf(const std::string& file);
