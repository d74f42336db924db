// The delta library through its C interface: round trips, the signature's
// SHA-1 and compatibility with librsync, matches, base lists and arguments.
#include <librsync.h>
#include <sys/stat.h>

#include <cstring>
#include <thread>

#include "delta_support.h"

namespace zeltest {
namespace {

struct Case {
  const char* name;
  Bytes base;
  Bytes updated;
};

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<Case> round_trip_cases() {
  Bytes base = random_bytes(300 * 1024 + 77, 1);
  Bytes edited = base;
  std::mt19937 rng(7);
  for (size_t n = 0; n < edited.size() / 100; ++n) edited[rng() % edited.size()] ^= 0x5A;  // 1% scattered
  std::vector<Case> cases = {
      {"identical", base, base},
      {"appended", base, concat(base, random_bytes(5000, 2))},
      {"truncated", base, Bytes(base.begin(), base.begin() + 200000)},
      {"inserted at the front", base, concat(random_bytes(999, 3), base)},
      {"1% scattered edits", base, edited},
      {"unrelated", base, random_bytes(base.size(), 4)},
      {"empty base", Bytes(), base},
      {"empty new file", base, Bytes()},
      {"both empty", Bytes(), Bytes()},
      {"one byte", Bytes{42}, Bytes{42}},
  };
  for (size_t size : {2047, 2048, 2049, 4095, 4096, 4097}) {
    Bytes b = random_bytes(size, size);
    Bytes u = b;
    u[size / 2] ^= 1;
    cases.push_back({"block-sized", b, b});
    cases.push_back({"block-sized edited", b, u});
    cases.push_back({"block-sized shifted", b, Bytes(b.begin() + 1, b.end())});
  }
  return cases;
}

TEST_F(DeltaTest, RoundTripsRebuildTheNewFileExactly) {
  for (const Case& c : round_trip_cases()) {
    for (int level : {0, 6}) {
      SCOPED_TRACE(std::string(c.name) + " level " + std::to_string(level));
      write("base", c.base);
      write("new", c.updated);
      ASSERT_EQ(signature("base", "sig"), 0);
      ASSERT_EQ(patch("sig", "new", "patch", level), 0);
      ASSERT_EQ(apply("base", sha1_hex(c.base), "patch", "out"), 0);
      EXPECT_EQ(read("out"), c.updated);
    }
  }
}

TEST_F(DeltaTest, PatchesCarryOnlyWhatChanged) {
  Bytes base = random_bytes(1 << 20, 11);
  Bytes updated = base;
  std::memcpy(&updated[500000], random_bytes(3000, 12).data(), 3000);
  write("base", base);
  write("new", updated);
  ASSERT_EQ(signature("base", "sig"), 0);
  ASSERT_EQ(patch("sig", "new", "patch", 0), 0);
  // 3000 new bytes spoil at most 3 blocks: the rest are copies.
  EXPECT_LT(read("patch").size(), 64 + 3 * 2048 + 4096u);
  // The base's short last block is found after a spoilt full block too.
  Bytes odd = random_bytes(5000, 13);
  Bytes odd_new = odd;
  odd_new[3000] ^= 1;
  write("odd", odd);
  write("odd.new", odd_new);
  ASSERT_EQ(signature("odd", "odd.sig"), 0);
  ASSERT_EQ(patch("odd.sig", "odd.new", "odd.patch", 0), 0);
  EXPECT_LT(read("odd.patch").size(), 64 + 2048 + 64u);
  ASSERT_EQ(apply("odd", sha1_hex(odd), "odd.patch", "odd.out"), 0);
  EXPECT_EQ(read("odd.out"), odd_new);
  // Compressible literal data shrinks with a compression level.
  Bytes text;
  for (int i = 0; text.size() < 200000; ++i) {
    std::string line = "line " + std::to_string(i) + " of a log that compresses well\n";
    text.insert(text.end(), line.begin(), line.end());
  }
  write("text", text);
  ASSERT_EQ(patch("sig", "text", "stored", 0), 0);
  ASSERT_EQ(patch("sig", "text", "packed", 6), 0);
  EXPECT_LT(read("packed").size() * 5, read("stored").size());
  ASSERT_EQ(apply("base", sha1_hex(base), "packed", "out"), 0);
  EXPECT_EQ(read("out"), text);
}

TEST_F(DeltaTest, SignatureHoldsTheFileSha1AtOffset4) {
  for (size_t size : {0, 1, 2048, 100000}) {
    Bytes data = random_bytes(size, 20 + size);
    write("file", data);
    ASSERT_EQ(signature("file", "sig"), 0);
    Bytes sig = read("sig");
    ASSERT_GE(sig.size(), 24u);
    EXPECT_EQ(to_hex(&sig[4], 20), sha1_hex(data)) << size;
    char* hex = file_sha1(wide(path("file")).c_str());
    ASSERT_NE(hex, nullptr);
    EXPECT_EQ(std::string(hex), sha1_hex(data));
    std::free(hex);
  }
  EXPECT_EQ(file_sha1(wide(path("missing")).c_str()), nullptr);
  EXPECT_EQ(file_sha1(nullptr), nullptr);
}

// The part of our signature after its own header is a librsync signature:
// the block sums, computed on two threads, must equal librsync's byte for
// byte.
TEST_F(DeltaTest, BlockSumsEqualLibrsyncSignature) {
  Bytes data = random_bytes(3 * 1024 * 1024 + 1234, 30);
  write("file", data);
  ASSERT_EQ(signature("file", "sig"), 0);
  Bytes ours = read("sig");
  ASSERT_GT(ours.size(), 44u);
  uint32_t strong_len = ours[40] << 24 | ours[41] << 16 | ours[42] << 8 | ours[43];
  EXPECT_GE(strong_len, 10u);
  EXPECT_LE(strong_len, 16u);
  FILE* in = std::fopen(path("file").c_str(), "rb");
  FILE* out = std::fopen(path("rsync.sig").c_str(), "wb");
  ASSERT_EQ(rs_sig_file(in, out, 2048, strong_len, RS_RK_MD4_SIG_MAGIC, nullptr), RS_DONE);
  std::fclose(in);
  std::fclose(out);
  EXPECT_TRUE(read("rsync.sig") == Bytes(ours.begin() + 32, ours.end()));
}

TEST_F(DeltaTest, MatchCountsUncoveredBytesAgainstTheRatio) {
  Bytes base = random_bytes(400 * 2048, 40);
  write("base", base);
  ASSERT_EQ(signature("base", "sig"), 0);
  // 100 blocks of the base followed by 25 blocks' worth of new bytes: a
  // share of exactly 0.2 is uncovered.
  Bytes mixed = concat(Bytes(base.begin(), base.begin() + 100 * 2048), random_bytes(25 * 2048, 41));
  write("mixed", mixed);
  EXPECT_EQ(match("sig", "mixed", 0.19), 0);
  EXPECT_GT(match("sig", "mixed", 0.2), 0);
  EXPECT_GT(match("sig", "mixed", 0.21), 0);
  EXPECT_EQ(match("sig", "mixed", 0.0), 0);
  EXPECT_GT(match("sig", "mixed", 1.0), 0);
  write("same", base);
  EXPECT_GT(match("sig", "same", 0.0), 0);
  Bytes one = base;
  one[777] ^= 1;
  write("one", one);
  EXPECT_EQ(match("sig", "one", 0.0), 0);
  write("unrelated", random_bytes(base.size(), 42));
  EXPECT_EQ(match("sig", "unrelated", 0.99), 0);
  EXPECT_GT(match("sig", "unrelated", 1.0), 0);
  write("empty", Bytes());
  EXPECT_GT(match("sig", "empty", 0.0), 0);
  for (double bad : {-0.01, 1.01, std::nan("")}) EXPECT_LT(match("sig", "same", bad), 0) << bad;
  EXPECT_LT(match("missing", "same", 0.5), 0);
  EXPECT_LT(match("sig", "missing", 0.5), 0);
}

// Files above the size where both cores scan half each: the seam costs at
// most one block of accuracy.
TEST_F(DeltaTest, MatchOnLargeFilesSplitsTheScan) {
  const size_t blocks = 6000;
  Bytes base = random_bytes(blocks * 2048, 50);
  write("base", base);
  ASSERT_EQ(signature("base", "sig"), 0);
  Bytes updated = base;
  for (size_t b = 0; b < blocks; b += 10) updated[b * 2048 + 5] ^= 1;  // every tenth block spoilt
  updated.insert(updated.begin() + updated.size() / 2, 3, 7);          // and a shift at the seam
  write("new", updated);
  EXPECT_EQ(match("sig", "new", 0.09), 0);
  EXPECT_GT(match("sig", "new", 0.11), 0);
  ASSERT_EQ(patch("sig", "new", "patch"), 0);
  ASSERT_EQ(apply("base", sha1_hex(base), "patch", "out"), 0);
  EXPECT_TRUE(read("out") == updated);
}

TEST_F(DeltaTest, NonAsciiUtf16Paths) {
  ASSERT_EQ(mkdir(path("données-日本").c_str(), 0700), 0);
  std::string base = "données-日本/bäse-\xF0\x9F\x98\x80.bin", sig = "données-日本/sïg",
              out = "données-日本/øut";
  Bytes data = random_bytes(10000, 60), updated = concat(data, Bytes{1, 2, 3});
  write(base, data);
  write("données-日本/nëw", updated);
  ASSERT_EQ(signature(base, sig), 0);
  EXPECT_GT(match(sig, "données-日本/nëw", 0.2), 0);  // the short last block and 3 bytes are new
  ASSERT_EQ(patch(sig, "données-日本/nëw", "données-日本/pätch"), 0);
  ASSERT_EQ(apply(base, sha1_hex(data), "données-日本/pätch", out), 0);
  EXPECT_EQ(read(out), updated);
  char* hex = file_sha1(wide(path(base)).c_str());
  ASSERT_NE(hex, nullptr);
  EXPECT_EQ(std::string(hex), sha1_hex(data));
  std::free(hex);
  // A lone surrogate names no file.
  const char16_t bad[] = {u'/', u't', u'm', u'p', u'/', 0xD800, 0};
  EXPECT_EQ(file_sha1(bad), nullptr);
}

TEST_F(DeltaTest, BaseListsAndArgumentsAreChecked) {
  DiffFileList* list = file_list_init();
  ASSERT_NE(list, nullptr);  // an empty list is not a failure
  write("base", random_bytes(5000, 70));
  write("new", random_bytes(5000, 71));
  ASSERT_EQ(signature("base", "sig"), 0);
  char* err = nullptr;
  auto create = [&](DiffFileList* l, int32_t format, int32_t flags, int32_t level, int32_t verify) {
    err = nullptr;
    int32_t r = diff_create_patch(wide(path("new")).c_str(), l, wide(path("patch")).c_str(), nullptr, format,
                                  flags, level, verify, &err);
    return take(r, err, nullptr);
  };
  EXPECT_LT(create(list, 1, 0, 6, 1), 0);  // empty
  EXPECT_EQ(file_list_append(list, nullptr), nullptr);
  EXPECT_EQ(file_list_append(nullptr, u"x"), nullptr);
  ASSERT_EQ(file_list_append(list, wide(path("sig")).c_str()), list);
  EXPECT_EQ(create(list, 1, 0, 6, 1), 0);
  EXPECT_LT(create(list, 2, 0, 6, 1), 0);
  EXPECT_LT(create(list, 1, 1, 6, 1), 0);
  EXPECT_LT(create(list, 1, 0, 20, 1), 0);
  EXPECT_LT(create(list, 1, 0, -1, 1), 0);
  EXPECT_LT(create(list, 1, 0, 6, 2), 0);
  ASSERT_EQ(file_list_append(list, wide(path("sig")).c_str()), list);
  std::string message;
  err = nullptr;
  int32_t r = diff_create_patch(wide(path("new")).c_str(), list, wide(path("patch2")).c_str(), nullptr, 1, 0,
                                6, 1, &err);
  EXPECT_LT(take(r, err, &message), 0);
  EXPECT_NE(message.find("one base"), std::string::npos) << message;
  EXPECT_FALSE(exists("patch2"));
  file_list_cleanup(list);
  file_list_cleanup(nullptr);

  auto sign = [&](const char16_t* file, uint32_t block, int32_t format) {
    err = nullptr;
    int32_t r = diff_create_signature(file, wide(path("s2")).c_str(), nullptr, block, format, 0, &err);
    return take(r, err, nullptr);
  };
  EXPECT_LT(sign(wide(path("base")).c_str(), 2048, 2), 0);
  EXPECT_LT(sign(wide(path("base")).c_str(), 100, 1), 0);
  EXPECT_LT(sign(nullptr, 2048, 1), 0);
  EXPECT_LT(signature("missing", "s2"), 0);
  EXPECT_FALSE(exists("s2"));
  free_err_msg(nullptr);
}

TEST_F(DeltaTest, ApplyModeKeepsTheBasePermissions) {
  Bytes data = random_bytes(9000, 80);
  write("base", data);
  ASSERT_EQ(chmod(path("base").c_str(), 0640), 0);
  ASSERT_EQ(signature("base", "sig"), 0);
  write("new", concat(data, data));
  ASSERT_EQ(patch("sig", "new", "patch"), 0);
  ASSERT_EQ(apply("base", sha1_hex(data), "patch", "kept", 1 | 2), 0);
  struct stat st;
  ASSERT_EQ(stat(path("kept").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_LT(apply("base", sha1_hex(data), "patch", "odd", 4), 0);
  EXPECT_FALSE(exists("odd"));
}

TEST_F(DeltaTest, ConcurrentCallsOnDifferentFiles) {
  std::vector<std::thread> threads;
  std::vector<int> ok(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t, &ok] {
      std::string n = std::to_string(t);
      Bytes base = random_bytes(200000 + t, 90 + t);
      Bytes updated = concat(random_bytes(100, t), base);
      write("b" + n, base);
      write("n" + n, updated);
      ok[t] = signature("b" + n, "s" + n) == 0 && match("s" + n, "n" + n, 0.1) > 0 &&
              patch("s" + n, "n" + n, "p" + n) == 0 &&
              apply("b" + n, sha1_hex(base), "p" + n, "o" + n) == 0 && read("o" + n) == updated;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(ok, std::vector<int>(4, 1));
}

}  // namespace
}  // namespace zeltest
