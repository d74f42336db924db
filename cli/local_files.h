// Local files of transfers.
#pragma once

#include <optional>
#include <string>

#include "cli.h"

namespace zelcli {

// A file of the tool's own, removed when the object goes (and by a second
// interrupting signal), unless it replaced its target.
class TempFile {
 public:
  TempFile() = default;
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  // A new empty file in the directory of `beside`, named after it.
  std::optional<Failure> create(const std::string& beside);
  // Standard input copied into a new file in $TMPDIR.
  std::optional<Failure> spool_stdin();
  // Flushes the file to disk and renames it over `target`, keeping the
  // target's permissions when it exists.
  std::optional<Failure> replace(const std::string& target);
  std::optional<Failure> copy_to_stdout() const;
  void remove();
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// $TMPDIR, or /tmp.
std::string temp_dir();

// A regular file the tool may read, and its size.
std::optional<Failure> readable_file(const std::string& path, uint64_t& size);

// The file an upload session was started with.
struct SessionNote {
  uint64_t size = 0;
  std::string sha1;
  std::string target;  // BUCKET/KEY
};
void note_session(const std::string& session, const SessionNote& note);
std::optional<SessionNote> read_session_note(const std::string& session);
void forget_session(const std::string& session);

}  // namespace zelcli
