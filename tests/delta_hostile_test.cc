// The delta library on wrong, damaged and crafted input: every refusal is a
// negative result with a message, the result path keeps its old content, no
// temporary file stays behind, and allocation failures are survived.
#include <cstring>
#include <functional>

#include "alloc_walk.h"
#include "delta_support.h"

namespace zeltest {
namespace {

Bytes concat_trailer(Bytes data) {
  data.push_back(0);
  return data;
}

class HostileTest : public DeltaTest {
 protected:
  void SetUp() override {
    DeltaTest::SetUp();
    base_ = random_bytes(50000, 1);
    updated_ = base_;
    std::memcpy(&updated_[20000], random_bytes(5000, 2).data(), 5000);
    write("base", base_);
    write("new", updated_);
    write("out", Bytes{'o', 'l', 'd'});
    ASSERT_EQ(signature("base", "sig"), 0);
    ASSERT_EQ(patch("sig", "new", "patch"), 0);
    ASSERT_EQ(patch("sig", "new", "stored", 0), 0);
    files_ = listing();
  }

  // Applies `patch_name` and expects a refusal that leaves "out" alone.
  void expect_refused(const std::string& base, const std::string& sha1, const std::string& patch_name,
                      const std::string& why) {
    std::string message;
    EXPECT_LT(apply(base, sha1, patch_name, "out", 0, &message), 0) << why;
    EXPECT_FALSE(message.empty()) << why;
    EXPECT_EQ(read("out"), (Bytes{'o', 'l', 'd'})) << why;
    EXPECT_EQ(listing(), files_) << why << ": a temporary file was left";
  }

  Bytes base_, updated_;
  std::vector<std::string> files_;
};

TEST_F(HostileTest, ApplyRefusesTheWrongBase) {
  Bytes other = base_;
  other[100] ^= 1;
  write("other", other);
  files_ = listing();
  // The entry names the right SHA-1 but the file's content differs.
  expect_refused("other", sha1_hex(base_), "patch", "content differs");
  std::string why;
  EXPECT_LT(apply("other", sha1_hex(base_), "patch", "out", 0, &why), 0);
  EXPECT_NE(why.find("base file's content"), std::string::npos) << why;
  // The entry's SHA-1 is not the patch's base.
  std::string message;
  EXPECT_LT(apply("other", sha1_hex(other), "patch", "out", 0, &message), 0);
  EXPECT_NE(message.find("not made from"), std::string::npos) << message;
  expect_refused("base", "not a sha1", "patch", "malformed SHA-1 text");
  expect_refused("base", sha1_hex(base_) + "0", "patch", "SHA-1 text too long");
  write("short", Bytes(base_.begin(), base_.end() - 1));
  files_ = listing();
  expect_refused("short", sha1_hex(base_), "patch", "base of another size");
  expect_refused("missing", sha1_hex(base_), "patch", "no base file");
  // Upper-case digits name the same SHA-1.
  std::string upper = sha1_hex(base_);
  for (char& c : upper) c = static_cast<char>(toupper(c));
  EXPECT_EQ(apply("base", upper, "patch", "out"), 0);
  EXPECT_EQ(read("out"), updated_);
}

TEST_F(HostileTest, ApplyRefusesTruncatedPatches) {
  for (const char* name : {"patch", "stored"}) {
    Bytes whole = read(name);
    for (size_t cut :
         {size_t{0}, size_t{10}, size_t{63}, size_t{64}, size_t{65}, whole.size() / 2, whole.size() - 1}) {
      write("cut", Bytes(whole.begin(), whole.begin() + cut));
      files_ = listing();
      expect_refused("base", sha1_hex(base_), "cut", std::string(name) + " cut at " + std::to_string(cut));
    }
    write("long", concat_trailer(whole));
    files_ = listing();
    expect_refused("base", sha1_hex(base_), "long", std::string(name) + " with trailing data");
  }
}

TEST_F(HostileTest, ApplyRefusesCorruptedPatches) {
  for (const char* name : {"patch", "stored"}) {
    Bytes whole = read(name);
    // Every header byte, then a spread of bytes of the delta stream.
    std::vector<size_t> spots;
    for (size_t i = 0; i < 64; ++i) spots.push_back(i);
    for (size_t i = 64; i < whole.size(); i += 1 + whole.size() / 50) spots.push_back(i);
    for (size_t spot : spots) {
      Bytes bad = whole;
      bad[spot] ^= 0x40;
      write("bad", bad);
      files_ = listing();
      std::string message;
      int32_t r = apply("base", sha1_hex(base_), "bad", "out", 0, &message);
      // A flipped byte either is refused or, in a byte the stream does not
      // depend on, still yields exactly the new file: never anything else.
      if (r < 0) {
        EXPECT_EQ(read("out"), (Bytes{'o', 'l', 'd'})) << name << " byte " << spot;
      } else {
        EXPECT_EQ(read("out"), updated_) << name << " byte " << spot;
        write("out", Bytes{'o', 'l', 'd'});
      }
      EXPECT_EQ(listing(), files_) << name << " byte " << spot;
    }
  }
}

// Delta streams no encoder writes, behind a valid header: each is refused
// before it can read outside the base or write past the stated size.
TEST_F(HostileTest, CraftedStreamsAreRefused) {
  Bytes header = read("stored");
  header.resize(64);
  const Bytes big = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01};  // 2^64 - 1
  struct Stream {
    const char* why;
    Bytes ops;
  } streams[] = {
      {"nothing built", {0x00}},
      {"unknown instruction", {0x07, 0x00}},
      {"empty literal", {0x01, 0x00, 0x00}},
      {"literal longer than the new file", {0x01, 0xE0, 0xD4, 0x03, 0x00}},  // 60000 bytes
      {"copy past the base's end", {0x02, 0xC0, 0x8D, 0x06, 0x01, 0x00}},    // at 50016
      {"copy before the base's start", {0x02, 0x03, 0x01, 0x00}},            // at -2
      {"copy too long", {0x02, 0x00, 0xD1, 0x86, 0x03, 0x00}},               // 50001 bytes
      {"number of eleven bytes", {0x01, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}},
      {"truncated literal", {0x01, 0x10, 'a', 'b'}},
      {"no end instruction", {0x02, 0x00, 0x10}},
  };
  std::vector<Stream> all(std::begin(streams), std::end(streams));
  Bytes huge_copy = {0x02, 0x00};
  huge_copy.insert(huge_copy.end(), big.begin(), big.end());
  all.push_back({"copy of 2^64 - 1 bytes", huge_copy});
  for (const Stream& stream : all) {
    Bytes patch = header;
    patch.insert(patch.end(), stream.ops.begin(), stream.ops.end());
    write("crafted", patch);
    files_ = listing();
    expect_refused("base", sha1_hex(base_), "crafted", stream.why);
    std::string message;
    apply("base", sha1_hex(base_), "crafted", "out", 0, &message);
    EXPECT_EQ(message.rfind("The patch is", 0), 0u) << stream.why << ": " << message;
  }
}

TEST_F(HostileTest, DamagedSignaturesAreRefused) {
  Bytes sig = read("sig");
  auto refused = [&](const Bytes& bad, const std::string& why) {
    write("badsig", bad);
    EXPECT_LT(match("badsig", "new", 1.0), 0) << why;
    std::string message;
    EXPECT_LT(patch("badsig", "new", "p2", 6, &message), 0) << why;
    EXPECT_FALSE(exists("p2")) << why;
    std::remove(path("p2").c_str());
  };
  for (size_t cut : {size_t{0}, size_t{3}, size_t{23}, size_t{24}, size_t{43}, size_t{44}, sig.size() - 1})
    refused(Bytes(sig.begin(), sig.begin() + cut), "cut at " + std::to_string(cut));
  Bytes longer = sig;
  longer.push_back(0);
  refused(longer, "one byte too many");
  for (size_t spot : {0, 3, 26, 31, 32, 36, 40, 43}) {  // magic, version, size, librsync header
    Bytes bad = sig;
    bad[spot] ^= 0x11;
    refused(bad, "byte " + std::to_string(spot));
  }
  // A size off by a few bytes describes as many blocks: the signature looks
  // whole, and the patch made from it names a base no file has.
  Bytes off = sig;
  off[24] ^= 0x11;
  write("off", off);
  ASSERT_EQ(patch("off", "new", "p4"), 0);
  files_ = listing();
  expect_refused("base", sha1_hex(base_), "p4", "base size recorded wrongly");
  Bytes huge = sig;
  for (int i = 24; i < 32; ++i) huge[i] = 0xFF;  // claims 16 EiB
  refused(huge, "absurd size");
  // Garbage block sums are well-formed: they match nothing, and a patch
  // from them is all literal data but still correct.
  Bytes noise = sig;
  Bytes random = random_bytes(sig.size() - 44, 9);
  std::copy(random.begin(), random.end(), noise.begin() + 44);
  write("noise", noise);
  EXPECT_EQ(match("noise", "new", 0.5), 0);
  ASSERT_EQ(patch("noise", "new", "p3"), 0);
  ASSERT_EQ(apply("base", sha1_hex(base_), "p3", "out"), 0);
  EXPECT_EQ(read("out"), updated_);
}

// Each call on its own: every allocation it makes through the library's
// allocator fails once in turn until the call goes through. A call must
// fail cleanly or succeed with the right result, never leak or crash (the
// sanitizer build checks the leaks).
TEST_F(HostileTest, AllocationFailuresAreSurvived) {
  std::string message;
  const std::function<bool()> calls[] = {
      [&] {
        DiffFileList* list = file_list_init();
        bool ok = list != nullptr && file_list_append(list, wide(path("sig")).c_str()) == list;
        file_list_cleanup(list);
        return ok;
      },
      [&] { return signature("base", "sig2", &message) == 0 && read("sig2") == read("sig"); },
      [&] { return patch("sig", "new", "p2", 6, &message) == 0 && read("p2") == read("patch"); },
      [&] {
        return apply("base", sha1_hex(base_), "patch", "out2", 0, &message) == 0 && read("out2") == updated_;
      },
      [&] {
        char* hex = file_sha1(wide(path("base")).c_str());
        bool ok = hex != nullptr && sha1_hex(base_) == hex;
        std::free(hex);
        return ok;
      },
  };
  for (size_t i = 0; i < std::size(calls); ++i) {
    SCOPED_TRACE("call " + std::to_string(i));
    // A success with wrong bytes would never end the walk.
    EXPECT_GT(walk_allocations(100, [&](long) { return calls[i](); }), 1) << "the seam did not reach it";
  }
}

}  // namespace
}  // namespace zeltest
