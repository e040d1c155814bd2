#include "app/voice_bank.h"

#include <cstdio>

#include "editing/noteman.h"

bool loadVoiceBank(CNoteMan& manager, const std::string& project, const std::string& option, const char* command) {
  ctonm2& engine = *manager.engine();
  std::string bank = option.empty() ? std::string(engine.voiceDir) : option;
  if (!bank.empty() && bank[0] != '/') {
    const size_t slash = project.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : project.substr(0, slash == 0 ? 1 : slash);
    bank = folder + "/" + bank;
  }
  engine.set_voiceDir(bank.c_str());
  if (bank.empty() || manager.readVoiceset() < 1) {
    fprintf(stderr, "tona %s: no voice bank at '%s'\n", command, bank.empty() ? "(none given)" : engine.voiceDir);
    return false;
  }
  return true;
}
