// tona-editor: the desktop editor.
//
//   tona-editor [--play] [PROJECT]
//   tona-editor --screenshot OUT.png [--size WIDTHxHEIGHT] [PROJECT]

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QSettings>
#include <QSocketNotifier>
#include <QTableView>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "editing/noteman.h"
#include "editing/undoman.h"
#include "ui/shell/bankeditor.h"
#include "ui/shell/document.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/player.h"
#include "ui/shell/preferences.h"
#include "ui/shell/startup.h"
#include "ui/shell/texts.h"
#include "ui/views/rolleditor.h"

namespace {

const char kUsage[] =
    "usage: tona-editor [--play] [PROJECT]\n"
    "       tona-editor --screenshot OUT.png [--size WIDTHxHEIGHT] [--select FIRST[-LAST]] [PROJECT]\n"
    "       tona-editor --entries BANK [--screenshot OUT.png [--size WIDTHxHEIGHT] [--select ROW]]\n"
    "\n"
    "Opens PROJECT (an .snt file) in the desktop editor, or a new project; a\n"
    "MusicXML score (.musicxml, .xml, .mxl), a MIDI (.mid) or a VSQ (.vsq)\n"
    "file is imported as a new project. With\n"
    "--play, plays it from the start once it is open.\n"
    "With --screenshot, lays out the window off screen, writes it as a PNG\n"
    "picture (1280x800 unless --size says otherwise) and exits; --select\n"
    "selects notes FIRST to LAST (counted from 0) first, to show their handles.\n"
    "With --entries, opens the entry editor of the voice bank folder BANK\n"
    "(--select: the entry shown).\n";

int fail(const char* message) {
  fprintf(stderr, "tona-editor: %s\n", message);
  return 2;
}

// SIGTERM and SIGHUP (a logout, a kill) end the editor without questions:
// every project with unsaved edits is in its recovery copy already, and
// the copies stay for the next start. The handler only writes the signal
// to a pipe; the event loop reads it.
int signalPipe[2] = {-1, -1};

void onTerminate(int signal) {
  const char byte = static_cast<char>(signal);
  const ssize_t written = write(signalPipe[1], &byte, 1);
  static_cast<void>(written);
}

void handleTermination(QApplication* app) {
  if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
  struct sigaction action = {};
  action.sa_handler = onTerminate;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGHUP, &action, nullptr);
  auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, app);
  QObject::connect(notifier, &QSocketNotifier::activated, app, [app] {
    char byte = 0;
    while (read(signalPipe[0], &byte, 1) == 1) {
    }
    Player::instance().stop();
    app->exit(0);
  });
}

// The widget as laid out, as a PNG file; the exit status.
int savePicture(QWidget* widget, const std::string& path) {
  if (widget->grab().save(QString::fromLocal8Bit(path.c_str()), "PNG")) return 0;
  fprintf(stderr, "tona-editor: cannot write '%s'\n", path.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string screenshot, project, entries;
  int width = 1280, height = 800;
  int selectFirst = -1, selectLast = -1;
  bool play = false;
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      fputs(kUsage, stdout);
      return 0;
    }
    if (strcmp(arg, "--version") == 0) {
      printf("tona-editor %s\n", TONA_VERSION);
      return 0;
    }
    if (strcmp(arg, "--play") == 0) {
      play = true;
    } else if (strcmp(arg, "--screenshot") == 0) {
      if (++i >= argc) return fail("--screenshot needs a file name");
      screenshot = argv[i];
    } else if (strcmp(arg, "--size") == 0) {
      if (++i >= argc || sscanf(argv[i], "%dx%d", &width, &height) != 2 || width < 200 || height < 150 ||
          width > 8000 || height > 8000) {
        return fail("--size takes WIDTHxHEIGHT, from 200x150 to 8000x8000");
      }
    } else if (strcmp(arg, "--entries") == 0) {
      if (++i >= argc) return fail("--entries needs a voice bank folder");
      entries = argv[i];
    } else if (strcmp(arg, "--select") == 0) {
      if (++i >= argc) return fail("--select takes FIRST or FIRST-LAST");
      const int n = sscanf(argv[i], "%d-%d", &selectFirst, &selectLast);
      if (n < 1 || selectFirst < 0 || (n == 2 && selectLast < selectFirst)) {
        return fail("--select takes FIRST or FIRST-LAST, counted from 0");
      }
      if (n == 1) selectLast = selectFirst;
    } else if (arg[0] == '-' && arg[1] != '\0') {
      fprintf(stderr, "tona-editor: unknown option '%s'\n%s", arg, kUsage);
      return 2;
    } else if (project.empty()) {
      project = arg;
    } else {
      return fail("one project at a time");
    }
  }
  signal(SIGXFSZ, SIG_IGN);  // a write past the file size limit fails as any other
  // A picture needs no display.
  if (!screenshot.empty() && getenv("QT_QPA_PLATFORM") == nullptr) setenv("QT_QPA_PLATFORM", "offscreen", 1);

  QApplication app(argc, argv);
  QApplication::setOrganizationName("tona");
  QApplication::setApplicationName("tona-editor");
  QApplication::setApplicationDisplayName("TONA");
  QApplication::setDesktopFileName("tona-editor");
  installCoreTexts(QLocale::system());
  // Logging as the preferences say, once the user has chosen something
  // (until then the environment decides).
  if (QSettings().contains("log/level")) EditorPreferences::load().applyLogging();

  if (!entries.empty()) {
    auto* editor = new BankEditor;
    QString error;
    if (!editor->open(QString::fromLocal8Bit(entries.c_str()), &error)) {
      fprintf(stderr, "tona-editor: %s\n", error.toLocal8Bit().constData());
      delete editor;
      return 1;
    }
    if (selectFirst >= 0) {
      editor->table()->selectRow(selectFirst);
      editor->choose(selectFirst);
    }
    if (screenshot.empty()) {
      editor->show();
      return app.exec();
    }
    editor->resize(width, height);
    editor->show();
    QApplication::processEvents();
    const int status = savePicture(editor, screenshot);
    delete editor;
    return status;
  }

  auto* window = new MainWindow;
  if (!screenshot.empty()) {
    const QString path = QString::fromLocal8Bit(project.c_str());
    const bool opened = project.empty() ||
                        (MainWindow::isImported(path) ? window->importSequence(path, -1, -1, true) != nullptr
                                                      : window->openProject(path, true));
    if (!opened) {
      fprintf(stderr, "tona-editor: %s\n", window->lastMessage().toLocal8Bit().constData());
      delete window;
      return 1;
    }
    window->resize(width, height);
    window->show();
    QApplication::processEvents();
    window->editor()->showSongStart();
    if (selectFirst >= 0) {
      CNoteMan& notes = window->document()->notes();
      notes.addSelect(selectFirst, 0);
      if (selectLast > selectFirst) notes.addSelect(selectLast, 1);
      window->document()->touch();
    }
    QApplication::processEvents();
    const int status = savePicture(window, screenshot);
    delete window;
    return status;
  }

  handleTermination(&app);
  window->show();
  offerRecovery(window);
  // The project asked for gets a window of its own beside a recovered one.
  if (!project.empty()) {
    MainWindow* shown = window->openElsewhere(QString::fromLocal8Bit(project.c_str()));
    if (play && shown != nullptr) shown->action("play")->trigger();
  }
  return app.exec();
}
