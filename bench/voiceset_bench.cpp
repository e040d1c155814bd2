// Loading a large Shift_JIS bank as a project does (entries, conversion to
// UTF-8, rules), and resolving lyrics against it.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "voicebank/connective.h"
#include "voicebank/voiceset.h"

namespace {

// Shift_JIS hiragana あ..ん are 0x82 0x9F..0xF1.
std::string kana(int i) {
  std::string s = "\x82";
  s += static_cast<char>(0x9F + i % 83);
  return s;
}

struct Bank {
  std::string folder;
  std::vector<std::string> lyrics, previous;  // UTF-8
  explicit Bank(int entries) {
    char pattern[] = "/tmp/tona-bench-XXXXXX";
    folder = mkdtemp(pattern);
    FILE* oto = fopen((folder + "/oto.ini").c_str(), "w");
    const char* vowels[] = {"a ", "i ", "u ", "e ", "o ", "n ", "- ", "* "};
    for (int i = 0; i < entries; ++i) {
      // Eight connective forms of each syllable, plus a few pitch variants.
      const std::string alias = std::string(vowels[i % 8]) + kana(i / 8) + (i / 664 ? std::to_string(i / 664) : "");
      fprintf(oto, "_%05d.wav=%s,%d.0,120.0,-200.0,80.0,20.0\n", i, alias.c_str(), i % 500);
    }
    fclose(oto);
    const char* hiragana[] = {"か", "さ", "た", "な", "ん", "き", "し", "て", "の", "う"};
    for (int i = 0; i < 1000; ++i) {
      lyrics.push_back(hiragana[(i * 7) % 10]);
      previous.push_back(i % 11 == 0 ? "" : hiragana[(i * 3) % 10]);
    }
  }
  ~Bank() {
    remove((folder + "/oto.ini").c_str());
    rmdir(folder.c_str());
  }
};

void BM_LoadBank(benchmark::State& state) {
  Bank bank(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    cvoiceset set;
    set.read_voiceset(bank.folder.c_str());
    convertVoicesetTexts(&set);
    installConnectiveRules(&set);
    benchmark::DoNotOptimize(set.search_voicedata("x"));  // includes building the index
  }
}

void BM_Resolve1000Lyrics(benchmark::State& state) {
  Bank bank(static_cast<int>(state.range(0)));
  cvoiceset set;
  set.read_voiceset(bank.folder.c_str());
  convertVoicesetTexts(&set);
  installConnectiveRules(&set);
  int hits = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < bank.lyrics.size(); ++i) {
      const char* previous = bank.previous[i].empty() ? nullptr : bank.previous[i].c_str();
      hits += set.get_voicedata(previous, bank.lyrics[i].c_str(), 60 + static_cast<int>(i % 12)) != nullptr;
    }
  }
  state.counters["hits_per_pass"] = static_cast<double>(hits) / static_cast<double>(state.iterations());
}

}  // namespace

BENCHMARK(BM_LoadBank)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Resolve1000Lyrics)->Arg(10000)->Unit(benchmark::kMillisecond);
