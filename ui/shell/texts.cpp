#include "ui/shell/texts.h"

#include <QCoreApplication>
#include <cstring>

namespace {

struct Pair {
  const char* japanese;
  const char* english;
};

// The command titles of the undo history, then whole texts.
const Pair kTitles[] = {
    {"音符の削除", "Delete Notes"},         {"音符の追加", "Add Notes"},
    {"音符の移動", "Move Notes"},           {"音符の変更", "Change Notes"},
    {"長さの変更", "Change Lengths"},       {"ピッチの変更", "Change Pitch"},
    {"ビブラートの変更", "Change Vibrato"}, {"エンベロープの変更", "Change Envelope"},
    {"ボリュームの変更", "Change Volume"},  {"テンポの変更", "Change Tempo"},
    {"歌詞の変更", "Change Lyrics"},        {"拍子記号", "Time Signature"},
    {"クォンタイズ", "Quantize"},           {"音符の分割", "Split Notes"},
    {"音符の結合", "Join Notes"},
};
const Pair kTexts[] = {
    {"元に戻す", "Undo"},
    {"やり直し", "Redo"},
    {"前回異常終了したプロジェクトがあります。", "A project was left open when the editor last ended abnormally."},
    {"読み込む(Load project)", "Load project"},
    {"破棄する(Discard)", "Discard"},
    {"音符がありません", "There are no notes"},
    {"原音パスを設定してください", "Set the voice bank folder"},
    {"原音が選択されていません", "No voice bank is chosen"},
    {"レンダリングできる音符がありません", "There are no notes that can be rendered"},
    {"原音エントリーがありません(2)", "The voice bank has no entries (2)"},
};

const char* englishTitle(const std::string& title) {
  for (const Pair& pair : kTitles) {
    if (title == pair.japanese) return pair.english;
  }
  return nullptr;
}

bool endsWith(const std::string& text, const char* suffix, std::string* head) {
  const size_t n = strlen(suffix);
  if (text.size() <= n || text.compare(text.size() - n, n, suffix) != 0) return false;
  *head = text.substr(0, text.size() - n);
  return true;
}

CoreTexts* installed = nullptr;

}  // namespace

QString CoreTexts::translate(const char* context, const char* sourceText, const char*, int) const {
  if (context == nullptr || strcmp(context, "core") != 0 || sourceText == nullptr) return QString();
  const std::string text = sourceText;
  for (const Pair& pair : kTexts) {
    if (text == pair.japanese) return QString::fromUtf8(pair.english);
  }
  std::string head;
  if (endsWith(text, "を元に戻す", &head)) {
    if (const char* title = englishTitle(head)) return QString("Undo %1").arg(title);
  }
  if (endsWith(text, "をやり直し", &head)) {
    if (const char* title = englishTitle(head)) return QString("Redo %1").arg(title);
  }
  return QString();
}

void installCoreTexts(const QLocale& locale) {
  removeCoreTexts();
  if (locale.language() == QLocale::Japanese) return;
  installed = new CoreTexts(QCoreApplication::instance());
  QCoreApplication::installTranslator(installed);
}

void removeCoreTexts() {
  if (installed == nullptr) return;
  QCoreApplication::removeTranslator(installed);
  delete installed;
  installed = nullptr;
}

QString coreText(const char* text) { return QCoreApplication::translate("core", text); }
