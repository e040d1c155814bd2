// Recovery copies: every editing session with unsaved edits keeps its
// project in a file of its own in the per-user recovery folder, so that a
// crash, a kill or a logout loses nothing.
//
//   .temp.snt          the command line's copy ('tona edit')
//   .temp-PID-N.snt    the copy of the editor window N of process PID
//   COPY.path          beside a copy: the path of the project it was made
//                      from, one line, empty for a project never saved
//   .temp-PID.lock     held locked (flock) by the editor process PID while
//                      it runs: its copies are not left behind yet
//
// A copy is written to a temporary name and renamed, never torn; the time
// it was written is the file's modification time.
#pragma once

#include <ctime>
#include <string>
#include <vector>

class CNoteMan;

struct RecoveryCopy {
  std::string file;         // the copy
  std::string projectPath;  // where the project was saved, or ""
  std::string projectName;  // the project's own name, or ""
  int noteCount = 0;
  time_t written = 0;
};

// The copies that sessions which have ended left behind, newest first. A
// copy of an editor process still running is not among them, and neither
// is anything in the folder that is not a regular file.
std::vector<RecoveryCopy> findRecoveryCopies();

// A new copy's path for one more window of this process, in the recovery
// folder (made when missing); empty when there is no such folder. The
// first call takes the process's lock.
std::string newRecoveryCopyPath();

// Writes `notes` as the copy at `file` (the 2.0 form) with its ".path"
// line beside it. False when either could not be written.
bool writeRecoveryCopy(CNoteMan& notes, const std::string& file, const std::string& projectPath);
// The project path recorded beside the copy ("" when none).
std::string recoveryCopyProjectPath(const std::string& file);
// Removes the copy and what is recorded beside it.
void removeRecoveryCopy(const std::string& file);
