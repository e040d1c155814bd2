// The per-user folders, following the XDG base directories:
//   voice banks      ${XDG_DATA_HOME:-$HOME/.local/share}/tona/voice
//   recovery folder  ${XDG_STATE_HOME:-$HOME/.local/state}/tona/temp
//   render cache     ${XDG_CACHE_HOME:-$HOME/.cache}/tona/cache
// An XDG variable counts only when it holds an absolute path.
#pragma once

#include <string>

enum class UserFolder { kVoice, kRecovery, kCache };

// The folder's path, without a trailing "/"; empty when neither the XDG
// variable nor HOME is set. With `create`, the folder and its parents are
// made (mode 0777 less the umask); a folder that cannot be made still
// gives its path, and the caller's own open then fails.
std::string userFolder(UserFolder which, bool create = false);

// Makes `path` and every missing parent. Returns true when the folder
// exists afterwards.
bool makeFolders(const std::string& path);
