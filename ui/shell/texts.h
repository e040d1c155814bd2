// The texts the core and the start-up question give in Japanese are shown
// as written; this translator gives them in English for every other
// locale. The editor's own texts are English in the source.
#pragma once

#include <QLocale>
#include <QTranslator>

class CoreTexts : public QTranslator {
 public:
  using QTranslator::QTranslator;
  QString translate(const char* context, const char* sourceText, const char* disambiguation = nullptr,
                    int n = -1) const override;
  bool isEmpty() const override { return false; }
};

// Installs the English texts unless the locale is Japanese.
void installCoreTexts(const QLocale& locale);
// Removes them again (the tests switch between both).
void removeCoreTexts();

// A core text through the translator ("core" context).
QString coreText(const char* text);
