// Notes of started uploads: which file (size and SHA-1) an upload session
// belongs to, so that resume can refuse another file before it sends a
// byte. The service keeps only byte ranges, which cannot tell two files of
// the same size apart.
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "local_files.h"

namespace zelcli {
namespace {

// ${XDG_STATE_HOME:-$HOME/.local/state}/zel/sessions, or empty.
std::string notes_dir() {
  const char* state = std::getenv("XDG_STATE_HOME");
  const char* home = std::getenv("HOME");
  std::string base = state != nullptr && *state == '/' ? state
                     : home != nullptr && *home == '/' ? std::string(home) + "/.local/state"
                                                       : "";
  return base.empty() ? "" : base + "/zel/sessions";
}

// Session ids become file names only when they are plain.
std::string note_path(const std::string& session) {
  if (session.empty() || session.size() > 128 || session[0] == '.' ||
      session.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") !=
          std::string::npos)
    return "";
  std::string dir = notes_dir();
  return dir.empty() ? "" : dir + "/" + session;
}

void make_dirs(const std::string& dir) {
  for (size_t slash = dir.find('/', 1); slash != std::string::npos; slash = dir.find('/', slash + 1))
    mkdir(dir.substr(0, slash).c_str(), 0700);
  mkdir(dir.c_str(), 0700);
}

}  // namespace

// Best effort: without a note resume still checks what the service holds.
void note_session(const std::string& session, const SessionNote& note) {
  std::string path = note_path(session);
  if (path.empty()) return;
  make_dirs(notes_dir());
  std::ofstream(path, std::ios::trunc) << note.size << " " << note.sha1 << " " << note.target << "\n";
}

std::optional<SessionNote> read_session_note(const std::string& session) {
  std::string path = note_path(session);
  std::ifstream in(path);
  SessionNote note;
  if (path.empty() || !(in >> note.size >> note.sha1) || !std::getline(in >> std::ws, note.target))
    return std::nullopt;
  return note;
}

void forget_session(const std::string& session) {
  std::string path = note_path(session);
  if (!path.empty()) std::remove(path.c_str());
}

}  // namespace zelcli
