#include "voicebank/connective.h"

#include <iconv.h>

#include <cstring>
#include <string>

#include "support/multibyte.h"
#include "support/textcopy.h"
#include "voicebank/voiceset.h"

namespace {

struct ConnectiveRule {
  const char* prefix;
  const char* endings;  // each ending followed by "|"
};

const ConnectiveRule kRules[] = {
    {"a ", "ぁ|あ|か|が|さ|ざ|た|だ|な|は|ば|ぱ|ま|ゃ|や|ら|ゎ|わ|ァ|ア|カ|ガ|サ|ザ|タ|ダ|ナ|ハ|バ|パ|マ|ャ|ヤ|ラ|ヮ|ワ|"},
    {"e ", "ぇ|え|け|げ|せ|ぜ|て|で|ね|へ|べ|ぺ|め|れ|ェ|エ|ケ|ゲ|セ|ゼ|テ|デ|ネ|ヘ|ベ|ペ|メ|レ|ゑ|ヱ|"},
    {"i ", "い|き|ぎ|し|じ|ち|ぢ|に|ひ|び|ぴ|み|り|ぃ|イ|キ|ギ|シ|ジ|チ|ヂ|ニ|ヒ|ビ|ピ|ミ|リ|ィ|ゐ|ヰ|"},
    {"o ", "ぉ|お|こ|ご|そ|ぞ|と|ど|の|ほ|ぼ|ぽ|も|ょ|よ|ろ|を|ォ|オ|コ|ゴ|ソ|ゾ|ト|ド|ノ|ホ|ボ|ポ|モ|ョ|ヨ|ロ|ヲ|"},
    {"u ", "ぅ|う|く|ぐ|す|ず|つ|づ|ぬ|ふ|ぶ|ぷ|む|ゅ|ゆ|る|ゥ|ウ|ク|グ|ス|ズ|ツ|ヅ|ヌ|フ|ブ|プ|ム|ュ|ユ|ル|ヴ|"},
    {"n ", "ん|ン|"},
    {"+ ", "っ|ッ|"},
};
constexpr int kRuleCount = sizeof kRules / sizeof kRules[0];

bool isUtf8Charset(const char* charset) {
  return strcmp(charset, "UTF-8") == 0 || strcmp(charset, "UTF8") == 0 || strcmp(charset, "utf-8") == 0 ||
         strcmp(charset, "utf8") == 0;
}

// One converter for a whole bank: opening iconv per text would dominate
// the load of a large bank.
class SjisFieldConverter {
 public:
  SjisFieldConverter() : cd_(iconv_open("UTF8", kShiftJis)) {}
  ~SjisFieldConverter() {
    if (ok()) iconv_close(cd_);
  }
  bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }

  void convert(char* field, size_t capacity) {
    const size_t length = strnlen(field, capacity);
    if (length == 0 || !ok()) return;
    bool ascii = true;
    for (size_t i = 0; i < length && ascii; ++i) ascii = static_cast<unsigned char>(field[i]) < 0x80;
    if (ascii) return;  // the same bytes in both
    out_.resize(3 * length + 1);
    char* in = field;
    size_t inLeft = length;
    char* out = &out_[0];
    size_t outLeft = 3 * length;
    iconv(cd_, nullptr, nullptr, nullptr, nullptr);
    // What converts is kept, up to the first byte that does not: a text is
    // never left as raw Shift_JIS among UTF-8 ones.
    iconv(cd_, &in, &inLeft, &out, &outLeft);
    size_t converted = 3 * length - outLeft;
    if (converted >= capacity) {
      converted = capacity - 1;
      while (converted > 0 && (static_cast<unsigned char>(out_[converted]) & 0xC0) == 0x80) --converted;
    }
    memcpy(field, out_.data(), converted);
    field[converted] = '\0';
  }

 private:
  iconv_t cd_;
  std::string out_;
};

}  // namespace

void installConnectiveRules(cvoiceset* voiceset) {
  if (voiceset == nullptr) return;
  const char* prefixes[kRuleCount];
  const char* endings[kRuleCount];
  for (int i = 0; i < kRuleCount; ++i) {
    prefixes[i] = kRules[i].prefix;
    endings[i] = kRules[i].endings;
  }
  voiceset->setVCCMParams("- ", "* ", prefixes, endings, kRuleCount);
}

void convertVoicesetTexts(cvoiceset* voiceset) {
  if (voiceset == nullptr) return;
  SjisFieldConverter converter;
  if (!isUtf8Charset(voiceset->charset())) {
    for (int32_t i = 0; i < voiceset->count(); ++i) {
      VoiceData* entry = voiceset->getVoiceEntry(i);
      converter.convert(entry->alias, sizeof entry->alias);
      converter.convert(entry->filename, sizeof entry->filename);
    }
    voiceset->entriesChanged();
  }
  if (!isUtf8Charset(voiceset->prefixMap[0].name)) {
    for (PrefixMapEntry& row : voiceset->prefixMap) {
      converter.convert(row.prefix, sizeof row.prefix);
      converter.convert(row.suffix, sizeof row.suffix);
    }
  }
}
