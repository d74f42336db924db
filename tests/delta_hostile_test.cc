// The delta library on wrong, damaged and crafted input: every refusal comes
// with a message, leaves the result path and the directory as they were;
// allocation failures are survived.
#include <cstring>
#include <functional>
#include <memory>
#include <tuple>

#include "alloc_walk.h"
#include "delta_support.h"

namespace zeltest {
namespace {

const Bytes kOld{'o', 'l', 'd'};

// `whole` with a byte more, cut at each of `cuts`, and with each of `spots` flipped.
using Damaged = std::vector<std::pair<std::string, Bytes>>;
Damaged damaged(const Bytes& whole, const std::vector<size_t>& cuts, const std::vector<size_t>& spots) {
  Damaged out{{"a byte more", whole}};
  out[0].second.push_back(0);
  for (size_t cut : cuts)
    out.emplace_back("cut at " + std::to_string(cut), Bytes(whole.begin(), whole.begin() + cut));
  for (size_t spot : spots) {
    out.emplace_back("byte " + std::to_string(spot) + " flipped", whole);
    out.back().second[spot] ^= 0x11;
  }
  return out;
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
    write("out", kOld);
    ASSERT_EQ(signature("base", "sig"), 0);
    ASSERT_EQ(patch("sig", "new", "patch"), 0);
    ASSERT_EQ(patch("sig", "new", "stored", 0), 0);
  }

  // Applies `bytes` as a patch over `base` and expects a refusal that leaves
  // "out" and the directory alone; the refusal's message.
  std::string refused(const Bytes& bytes, const std::string& why, const std::string& base = "base",
                      std::string sha1 = "") {
    write("bad", bytes);
    std::vector<std::string> files = listing();
    std::string message;
    EXPECT_LT(apply(base, sha1.empty() ? sha1_hex(base_) : sha1, "bad", "out", 0, &message), 0) << why;
    EXPECT_FALSE(message.empty()) << why;
    EXPECT_EQ(read("out"), kOld) << why;
    EXPECT_EQ(listing(), files) << why << ": a temporary file was left";
    return message;
  }

  Bytes base_, updated_;
};

TEST_F(HostileTest, ApplyRefusesTheWrongBase) {
  Bytes other = base_;
  other[100] ^= 1;
  write("other", other);
  write("short", Bytes(base_.begin(), base_.end() - 1));
  const std::tuple<const char*, std::string, const char*, const char*> cases[] = {
      {"other", sha1_hex(base_), "the entry names the right SHA-1, the content differs",
       "base file's content"},
      {"other", sha1_hex(other), "the entry's SHA-1 is not the patch's base", "not made from"},
      {"base", "not a sha1", "malformed SHA-1 text", ""},
      {"base", sha1_hex(base_) + "0", "SHA-1 text too long", ""},
      {"short", sha1_hex(base_), "base of another size", ""},
      {"missing", sha1_hex(base_), "no base file", ""},
  };
  for (const auto& [base, sha1, why, says] : cases) {
    std::string message = refused(read("patch"), why, base, sha1);
    EXPECT_NE(message.find(says), std::string::npos) << why << ": " << message;
  }
}

// Cut, lengthened and flipped patches: a flipped byte either is refused or,
// in a byte the stream does not depend on, still yields exactly the new file.
TEST_F(HostileTest, ApplyRefusesTruncatedLongerAndCorruptedPatches) {
  for (const char* name : {"patch", "stored"}) {
    Bytes whole = read(name);
    for (const auto& [why, bytes] :
         damaged(whole, {0, 10, 63, 64, 65, whole.size() / 2, whole.size() - 1}, {}))
      refused(bytes, name + (" " + why));
    // Every header byte, then a spread of bytes of the delta stream.
    for (size_t spot = 0; spot < whole.size(); spot += spot < 64 ? 1 : 1 + whole.size() / 50) {
      Bytes bad = whole;
      bad[spot] ^= 0x40;
      write("bad", bad);
      std::vector<std::string> files = listing();
      int32_t r = apply("base", sha1_hex(base_), "bad", "out", 0);
      EXPECT_EQ(read("out"), r < 0 ? kOld : updated_) << name << " byte " << spot;
      EXPECT_EQ(listing(), files) << name << " byte " << spot;
      write("out", kOld);
    }
  }
}

// Delta streams no encoder writes, behind a valid header: each is refused
// before it can read outside the base or write past the stated size.
TEST_F(HostileTest, CraftedStreamsAreRefused) {
  Bytes header = read("stored");
  header.resize(64);
  const std::pair<const char*, Bytes> streams[] = {
      {"nothing built", {0x00}},
      {"unknown instruction", {0x07, 0x00}},
      {"empty literal", {0x01, 0x00, 0x00}},
      {"literal longer than the new file", {0x01, 0xE0, 0xD4, 0x03, 0x00}},  // 60000 bytes
      {"copy past the base's end", {0x02, 0xC0, 0x8D, 0x06, 0x01, 0x00}},    // at 50016
      {"copy before the base's start", {0x02, 0x03, 0x01, 0x00}},            // at -2
      {"copy too long", {0x02, 0x00, 0xD1, 0x86, 0x03, 0x00}},               // 50001 bytes
      {"copy of 2^64 - 1 bytes", {0x02, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}},
      {"number of eleven bytes", {0x01, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}},
      {"truncated literal", {0x01, 0x10, 'a', 'b'}},
      {"no end instruction", {0x02, 0x00, 0x10}},
  };
  for (const auto& [why, ops] : streams) {
    Bytes patch = header;
    patch.insert(patch.end(), ops.begin(), ops.end());
    std::string message = refused(patch, why);
    EXPECT_EQ(message.rfind("The patch is", 0), 0u) << why << ": " << message;
  }
}

TEST_F(HostileTest, DamagedSignaturesAreRefused) {
  const Bytes sig = read("sig");
  auto refused_sig = [&](const Bytes& bad, const std::string& why) {
    write("badsig", bad);
    EXPECT_LT(match("badsig", "new", 1.0), 0) << why;
    EXPECT_LT(patch("badsig", "new", "p2"), 0) << why;
    EXPECT_FALSE(exists("p2")) << why;
  };
  // Magic, version, size and librsync header bytes flipped.
  for (const auto& [why, bytes] :
       damaged(sig, {0, 3, 23, 24, 43, 44, sig.size() - 1}, {0, 3, 26, 31, 32, 36, 40, 43}))
    refused_sig(bytes, why);
  Bytes changed = sig;
  for (int i = 24; i < 32; ++i) changed[i] = 0xFF;  // claims 16 EiB
  refused_sig(changed, "absurd size");
}

// Every allocation of each call fails in turn until the call goes through:
// it must fail cleanly or succeed with the right result (the sanitizer build
// checks the leaks).
TEST_F(HostileTest, AllocationFailuresAreSurvived) {
  std::string message;
  const std::function<bool()> calls[] = {
      [&] { return signature("base", "sig2", &message) == 0 && read("sig2") == read("sig"); },
      [&] { return patch("sig", "new", "p2", 6, &message) == 0 && read("p2") == read("patch"); },
      [&] {
        return apply("base", sha1_hex(base_), "patch", "out2", 0, &message) == 0 && read("out2") == updated_;
      },
      [&] {
        std::unique_ptr<char, decltype(&std::free)> hex(file_sha1(wide(path("base")).c_str()), std::free);
        return hex != nullptr && sha1_hex(base_) == hex.get();
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
