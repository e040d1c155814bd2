#include <gtest/gtest.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "playback/audioout.h"
#include "playback/sdl_output.h"
#include "tests/engine/notes.h"
#include "tests/testutil.h"
#include "tests/voicebank/bank.h"
#include "tests/voicebank/voice_signal.h"

namespace {

// What the hooks were told, in order, from whichever thread.
std::mutex eventsMutex;
std::vector<std::string> events;
void note(const std::string& event) {
  std::lock_guard<std::mutex> lock(eventsMutex);
  if (events.empty() || events.back() != event) events.push_back(event);  // repeats count once
}
void onTrigger(void* context, uint8_t* block, int32_t offsetBytes, int32_t lengthBytes, int32_t playOffset) {
  note("trigger");
  CAudioOut::play_trigger(context, block, offsetBytes, lengthBytes, playOffset);
}
void onRenderPos(void* context, double msec) {
  note(msec > 0.0 ? "render position" : "render end");
  CAudioOut::set_render_pos(context, msec);
}
void onProgress(void*, int32_t, int32_t) { note("progress"); }
void onStart() { note("play start"); }
void onStop() { note("play stop"); }

class PlayStart : public ::testing::Test {
 protected:
  void SetUp() override {
    writeVowelBank(bank_, 0.6, "a.wav=a,30,60,-400,40,10\n");
  }
  void addNotes(std::initializer_list<const char*> lyrics) {
    int delta = 480;
    for (const char* lyric : lyrics) {
      NoteData n = makeNote(lyric, 60, delta, 240);
      man_.engine()->insert_note(man_.engine()->noteCount, &n);
      delta = 240;
    }
  }

  FakeHome home_;
  TestBank bank_;
  CScaleMan scale_;
  CNoteMan man_{&scale_};
};

}  // namespace

TEST_F(PlayStart, SaysWhyNothingCanPlay) {
  std::string message;
  EXPECT_EQ(man_.playStart(0, 0, nullptr, nullptr, nullptr, nullptr, &message), -1);
  EXPECT_EQ(message, "音符がありません");
  addNotes({"a", "zz"});
  EXPECT_EQ(man_.playStart(0, 0, nullptr, nullptr, nullptr, nullptr, &message), -1);
  EXPECT_EQ(message, "原音パスを設定してください");
  man_.engine()->set_voiceDir(bank_.path().c_str());
  EXPECT_EQ(man_.playStart(0, 0, nullptr, nullptr, nullptr, nullptr, &message), -1);
  EXPECT_EQ(message, "原音が選択されていません");  // the folder is not read yet
  ASSERT_GT(man_.readVoiceset(), 0);
  man_.setLyric(0, "zz");  // no note has an entry
  EXPECT_EQ(man_.playStart(0, 0, nullptr, nullptr, nullptr, nullptr, &message), 0);
  EXPECT_EQ(message, "レンダリングできる音符がありません");
}

TEST_F(PlayStart, PlaysToTheEndOnTheDummyDevice) {
  ScopedEnv driver("SDL_AUDIODRIVER", "dummy");
  std::string error;
  std::unique_ptr<AudioDevice> device = openAudioDevice(nullptr, &error);
  ASSERT_NE(device, nullptr) << error;
  EXPECT_EQ(device->channels(), 2);
  CAudioOut player(device.get());
  CAudioOut::on_play_start = onStart;
  CAudioOut::on_play_stop = onStop;
  events.clear();

  addNotes({"a", "a", "a"});
  man_.engine()->set_voiceDir(bank_.path().c_str());
  ASSERT_GT(man_.readVoiceset(), 0);
  const std::string dump = bank_.folder() + "dump.txt";
  std::string message;
  ASSERT_EQ(man_.playStart(0, 0, onProgress, onTrigger, onRenderPos, dump.c_str(), &message), 1) << message;
  uint8_t* block = man_.engine()->render_thread_join(nullptr);
  for (int wait = 0; wait < 500 && CAudioOut::NowPlaying; ++wait) usleep(10000);  // the song lasts 1.5 s
  EXPECT_EQ(CAudioOut::NowPlaying, 0);
  EXPECT_NE(block, nullptr);  // the player's now, freed by it
  CAudioOut::reclaim();
  CAudioOut::on_play_start = nullptr;
  CAudioOut::on_play_stop = nullptr;
  std::lock_guard<std::mutex> lock(eventsMutex);
  // Playing starts once the first note is mixed, while the rest renders.
  EXPECT_EQ(events, (std::vector<std::string>{"progress", "render position", "progress", "trigger", "play start",
                                              "progress", /* (0, 0): the bar's work is done */ "render position",
                                              "render end", "play stop"}));
  // The dump holds the three notes.
  const std::string text = readFile(dump);
  size_t count = 0;
  for (size_t at = text.find("Lyric=a"); at != std::string::npos; at = text.find("Lyric=a", at + 1)) ++count;
  EXPECT_EQ(count, 3u);

  // Paused and stopped in the middle of ten seconds: the device stops each time.
  auto* again = static_cast<int16_t*>(calloc(441000, sizeof(int16_t)));
  CAudioOut::play_trigger(nullptr, reinterpret_cast<uint8_t*>(again), 0, 441000 * 2, 0);
  EXPECT_TRUE(player.running());
  player.play_pause();
  EXPECT_FALSE(player.running());
  player.play_start();
  EXPECT_TRUE(player.running());
  player.play_stop();
  EXPECT_FALSE(player.running());
}
