// What the delta engine keeps beside the objects: signatures and patches
// (content-addressed files under the delta directory, named by the SHA-1s
// of the contents they describe, so they never go stale), and the marks of
// uploaded patches that wait to be applied.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "objects.h"
#include "store.h"

namespace zelsrv {

struct KeptFile {
  std::string path;
  uint64_t size = 0;
  std::string sha1;
};

// An object whose content is a patch waiting to be applied. The mark holds
// only while the object still has the uploaded content (`blob`).
struct PendingPatch {
  std::string blob;
  std::string base_sha1;
  std::string new_sha1;
  int process_type = 0;
  int version = 2;  // API version the patch was uploaded with
};

// UTF-16 form of a file path, as the delta library takes it.
std::u16string wide_path(const std::string& utf8);

class DeltaStore {
 public:
  explicit DeltaStore(Store& store) : store_(store) {}

  // Tables and directory; false with a reason.
  bool open(std::string& err);
  std::string dir() const { return store_.objects_dir() + "/../delta"; }
  // A fresh file name in the store's scratch directory (emptied at start).
  std::string scratch_path(const std::string& tag) const;

  // Signature of the content `sha1` at `block` bytes, made from the file
  // `source` when it is not kept yet.
  bool signature(const std::string& sha1, const std::string& source, uint32_t block, KeptFile& out,
                 std::string& why);
  bool find_patch(const std::string& orig_sha1, const std::string& dest_sha1, KeptFile& out);
  // Moves the finished file `made` in as the patch between the contents.
  bool keep_patch(const std::string& orig_sha1, const std::string& dest_sha1, const std::string& made,
                  KeptFile& out, std::string& why);

  void mark_pending(const ObjectMeta& m, const PendingPatch& p);
  bool pending(const std::string& bucket, const std::string& key, PendingPatch& out);

  // Makes the file `made` (hash `sha1`, `size` bytes) the content of the
  // object, only if the object still holds `patch_blob`; the pending mark
  // goes in the same transaction, and `also` runs inside it with the new
  // metadata (for the job's own record). False when the object moved on.
  bool publish_applied(const std::string& bucket, const std::string& key, const std::string& patch_blob,
                       const std::string& made, const std::string& sha1, uint64_t size, ObjectMeta& out,
                       const std::function<void(const ObjectMeta&)>& also);

 private:
  bool kept(const std::string& name, KeptFile& out);
  bool keep(const std::string& name, const std::string& made, KeptFile& out, std::string& why);
  // Content type and birth date of the object while it still holds `blob`
  // (store mutex held); false once it has moved on.
  bool still_holds(const std::string& bucket, const std::string& key, const std::string& blob,
                   ObjectMeta& out);

  Store& store_;
};

}  // namespace zelsrv
