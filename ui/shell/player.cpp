#include "ui/shell/player.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>

#include "playback/audioout.h"
#include "playback/backing.h"
#include "playback/sdl_output.h"
#include "ui/shell/document.h"
#include "ui/shell/preferences.h"
#include "ui/shell/texts.h"
#include "ui/views/beats.h"

namespace {

std::atomic<bool> started{false};
std::atomic<bool> stopped{false};

void onPlayStart() { started = true; }
void onPlayStop() { stopped = true; }

}  // namespace

Player& Player::instance() {
  static Player player;
  return player;
}

Player::Player() {
  timer_.setInterval(30);
  connect(&timer_, &QTimer::timeout, this, &Player::poll);
}

Player::~Player() {
  stop();
  CAudioOut::on_play_start = nullptr;
  CAudioOut::on_play_stop = nullptr;
}

bool Player::openDevice(QString* error) {
  if (output_ != nullptr) return true;
  std::string reason;
  const QByteArray name = deviceWanted_.toUtf8();
  device_ = openAudioDevice(name.isEmpty() ? nullptr : name.constData(), &reason);
  if (device_ == nullptr) {
    *error = tr("No audio output: %1").arg(QString::fromStdString(reason));
    return false;
  }
  output_ = std::make_unique<CAudioOut>(device_.get());
  CAudioOut::on_play_start = onPlayStart;
  CAudioOut::on_play_stop = onPlayStop;
  return true;
}

bool Player::play(EditorDocument* document, int64_t fromTick, int64_t toTick, bool loop, QString* error) {
  stop();
  if (!openDevice(error)) return false;
  started = false;
  stopped = false;
  CNoteMan& notes = document->notes();
  // Played only once everything is rendered, when the user asks so: it
  // never waits then.
  const bool renderFirst = EditorPreferences::load().renderFirst;
  document->engine().earlyStartScale = renderFirst ? HUGE_VAL : 1.0;
  CAudioOut::pauseAtDelay = renderFirst ? 1 : 0;
  ctonm2& engine = document->engine();
  if (metronomeOn_) {
    // Every beat of the song and of one measure past its end, at its time
    // under the tempo map.
    const TickTimeline timeline(engine);
    std::vector<Metronome::Click> clicks;
    forEachBeat(document->scale(), 0, std::max(toTick, document->lengthTicks()) + 4 * 480,
                [&](int64_t tick, bool measure, int) { clicks.push_back({timeline.msec(tick), measure}); });
    metronome_.setClicks(std::move(clicks));
  }
  // What plays under the voice: the backing track, then the clicks.
  underBacking_ = document->backing().empty() ? nullptr : &document->backing();
  underClicks_ = metronomeOn_;
  engine.underlay = underBacking_ != nullptr || underClicks_ ? &Player::layUnder : nullptr;
  engine.underlayContext = this;
  // Played to the end, the song goes on while its accompaniment does.
  const bool toEnd = toTick <= fromTick;
  const BackingTrack& backing = document->backing();
  engine.underlayEndMs = toEnd && !backing.empty() && !backing.muted ? backing.offsetMs + backing.lengthMs() : 0.0;
  std::string message;
  const int32_t result =
      notes.playStart(fromTick, toTick, nullptr, CAudioOut::play_trigger, CAudioOut::set_render_pos, nullptr, &message);
  if (result <= 0) {
    engine.underlay = nullptr;
    engine.underlayEndMs = 0.0;
    *error = message.empty() ? tr("The render could not start") : coreText(message.c_str());
    document->touch();  // the preparation changed the notes' curves
    return false;
  }
  document_ = document;
  fromTick_ = fromTick;
  toTick_ = toTick > fromTick ? toTick : document->lengthTicks();
  if (engine.underlayEndMs > 0.0) toTick_ = std::max<int64_t>(toTick_, notes.MSec2Ticks(engine.underlayEndMs));
  fromMs_ = notes.Ticks2MSec(fromTick);
  loop_ = loop;
  paused_ = false;
  timer_.start();
  emit stateChanged();
  return true;
}

void Player::layUnder(void* context, int16_t* mix, int32_t samples, double songMs) {
  Player* self = static_cast<Player*>(context);
  if (self->underBacking_ != nullptr) BackingTrack::lay(const_cast<BackingTrack*>(self->underBacking_), mix, samples, songMs);
  if (self->underClicks_) Metronome::lay(&self->metronome_, mix, samples, songMs);
}

bool Player::playClip(const std::vector<int16_t>& samples, QString* error) {
  stop();
  if (!openDevice(error)) return false;
  // The player's block: a head of 48 bytes, then the samples.
  constexpr size_t kHeadWords = 24;
  auto* block = static_cast<int16_t*>(calloc(kHeadWords + samples.size(), sizeof(int16_t)));
  if (block == nullptr) {
    *error = tr("Out of memory");
    return false;
  }
  std::copy(samples.begin(), samples.end(), block + kHeadWords);
  started = false;
  stopped = false;
  CAudioOut::renderPos = 0;  // nothing left to render: it never waits
  CAudioOut::play_trigger(nullptr, reinterpret_cast<uint8_t*>(block), static_cast<int32_t>(kHeadWords * 2),
                          static_cast<int32_t>((kHeadWords + samples.size()) * 2), 0);
  return true;
}

bool Player::setDevice(const QString& name, QString* error) {
  if (name == deviceWanted_ && output_ != nullptr) return true;
  stop();
  if (output_ != nullptr) output_->play_stop();
  output_.reset();
  device_.reset();
  deviceWanted_ = name;
  return openDevice(error);
}

void Player::pause() {
  if (document_ == nullptr || paused_ || output_ == nullptr) return;
  output_->play_pause();
  paused_ = true;
  emit stateChanged();
}

void Player::resume() {
  if (document_ == nullptr || !paused_ || output_ == nullptr) return;
  if (started) output_->play_start();
  paused_ = false;
  emit stateChanged();
}

void Player::rewind() {
  if (document_ == nullptr || !started) return;
  CAudioOut::PlayingPos = CAudioOut::offset.load();
}

void Player::stop() {
  if (document_ == nullptr) return;
  timer_.stop();
  ctonm2& engine = document_->engine();
  if (engine.renderState.load() != 0) engine.render_stop();
  uint8_t* block = engine.render_thread_join(nullptr);
  engine.underlay = nullptr;  // file renders have no clicks
  engine.underlayEndMs = 0.0;
  if (output_ != nullptr) output_->play_stop();
  if (!started) free(block);  // never handed to the player, which frees what it was given
  CAudioOut::reclaim();
  EditorDocument* document = document_;
  document_ = nullptr;
  paused_ = false;
  emit positionChanged(-1, -1, -1, -1);
  emit stateChanged();
  document->touch();  // the render freed the curves it drew from
}

void Player::finish() {
  EditorDocument* document = document_;
  const int64_t from = fromTick_, to = toTick_;
  const bool loop = loop_;
  stop();
  if (loop && document != nullptr) {
    QString error;
    play(document, from, to, true, &error);
  }
}

void Player::poll() {
  if (document_ == nullptr) return;
  CAudioOut::reclaim();
  ctonm2& engine = document_->engine();
  const bool rendering = engine.renderState.load() != 0;
  if ((started && stopped) || (!rendering && !started)) {
    finish();
    return;
  }
  CNoteMan& notes = document_->notes();
  int64_t tick = fromTick_;
  if (started) {
    const double ms = fromMs_ + (static_cast<double>(CAudioOut::PlayingPos.load()) - CAudioOut::offset.load()) / 44.1;
    tick = notes.MSec2Ticks(ms);
  }
  int64_t renderedTo = toTick_;
  if (rendering) {
    const uint32_t at = CAudioOut::renderPos.load();
    renderedTo = at > CAudioOut::offset.load()
                     ? notes.MSec2Ticks(fromMs_ + (static_cast<double>(at) - CAudioOut::offset.load()) / 44.1)
                     : fromTick_;
  }
  // The note being sung: the last sounding note that has started.
  int singing = -1;
  const ctonm2& e = engine;
  int64_t position = 0;
  for (int32_t i = 0; i < e.noteCount; ++i) {
    position += e.notes[i].Delta;
    if (position > tick) break;
    if (!ctonm2::is_r(e.notes[i].Lyric) && position + e.notes[i].Length > tick) singing = i;
  }
  emit positionChanged(tick, singing, fromTick_, std::max(renderedTo, fromTick_));
}
