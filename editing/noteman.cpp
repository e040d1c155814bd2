#include "editing/noteman.h"

#include <cstdlib>
#include <vector>

#include "editing/scaleman.h"
#include "engine/sntman.h"

namespace {
constexpr int32_t kTimeSignatureBufferSize = 1024;
}

CScaleMan& applicationScale() {
  static CScaleMan scale;
  return scale;
}

CNoteMan::CNoteMan(CScaleMan* scale)
    : voiceset_(new cvoiceset), engine_(new ctonm2), scale_(scale != nullptr ? scale : &applicationScale()) {
  engine_->voiceset = voiceset_.get();
  engine_->set_flags("");
  engine_->set_outfile("");
  engine_->set_projectPath("");
  engine_->set_voiceDir("");
  engine_->set_projectName("(no title)");
}

CNoteMan::~CNoteMan() {
  free(snapshot_);
  engine_.reset();  // before the voice set it points into
}

int32_t CNoteMan::openSnt(const char* path, const char* defaultPath) {
  if (path == nullptr || path[0] == '\0') return -1;
  engine_->free_snt();
  CSntMan manager(engine_.get(), defaultPath);
  scale_->resetScale();
  char timeSignatures[kTimeSignatureBufferSize] = "";
  const int32_t result = manager.readSnt2(path, timeSignatures, sizeof timeSignatures);
  if (result < 0) return -1;
  if (timeSignatures[0] != '\0') scale_->unserializeText(timeSignatures);
  engine_->set_projectPath(path);
  return result;
}

int32_t CNoteMan::writeSnt(const char* path, const char* defaultPath) {
  CSntMan manager(engine_.get(), defaultPath);
  if (engine_->sntVersion < 200) return manager.writeSnt1(path);
  const int32_t size = scale_->serialize2text(nullptr, 0);
  if (size > 0) {
    std::vector<char> text(static_cast<size_t>(size));
    scale_->serialize2text(text.data(), size);
    if (text[0] != '\0') manager.addHeader("TimeSignatures", text.data());
  }
  return manager.writeSnt2(path);
}
