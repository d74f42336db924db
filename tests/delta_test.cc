// The delta library through its C interface: round trips, the signature's
// SHA-1 and compatibility with librsync, matches, base lists and arguments.
#include <librsync.h>
#include <sys/stat.h>

#include <array>
#include <cstring>
#include <thread>

#include "delta_support.h"

namespace zeltest {
namespace {

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class Delta : public DeltaTest {
 public:
  // Rebuilds `updated` from a patch against `base` at both levels; the size
  // of the stored (level 0) patch.
  size_t round_trip(const Bytes& base, const Bytes& updated, const std::string& why) {
    write("base", base);
    write("new", updated);
    EXPECT_EQ(signature("base", "sig"), 0) << why;
    size_t stored = 0;
    for (int level : {6, 0}) {
      EXPECT_EQ(patch("sig", "new", "patch", level), 0) << why;
      EXPECT_EQ(apply("base", sha1_hex(base), "patch", "out"), 0) << why;
      EXPECT_TRUE(read("out") == updated) << why << " level " << level;
      stored = read("patch").size();
    }
    return stored;
  }
};

TEST_F(Delta, RoundTripsRebuildTheNewFileExactly) {
  Bytes base = random_bytes(300 * 1024 + 77, 1), edited = base;
  std::mt19937 rng(7);
  for (size_t n = 0; n < edited.size() / 100; ++n) edited[rng() % edited.size()] ^= 0x5A;  // 1% scattered
  const std::pair<const char*, Bytes> cases[] = {
      {"identical", base},
      {"appended", concat(base, random_bytes(5000, 2))},
      {"truncated", Bytes(base.begin(), base.begin() + 200000)},
      {"inserted at the front", concat(random_bytes(999, 3), base)},
      {"1% scattered edits", edited},
      {"unrelated", random_bytes(base.size(), 4)},
      {"empty new file", Bytes()},
  };
  for (const auto& [why, updated] : cases) round_trip(base, updated, why);
  round_trip(Bytes(), base, "empty base");
  round_trip(Bytes(), Bytes(), "both empty");
  round_trip(Bytes{42}, Bytes{42}, "one byte");
  for (size_t size : {2047, 2048, 2049, 4095, 4096, 4097}) {
    Bytes b = random_bytes(size, size), u = b;
    u[size / 2] ^= 1;
    round_trip(b, b, "block-sized " + std::to_string(size));
    round_trip(b, u, "block-sized edited " + std::to_string(size));
    round_trip(b, Bytes(b.begin() + 1, b.end()), "block-sized shifted " + std::to_string(size));
  }
}

TEST_F(Delta, PatchesCarryOnlyWhatChanged) {
  Bytes base = random_bytes(1 << 20, 11), updated = base;
  std::memcpy(&updated[500000], random_bytes(3000, 12).data(), 3000);
  // 3000 new bytes spoil at most 3 blocks: the rest are copies.
  EXPECT_LT(round_trip(base, updated, "3000 bytes changed"), 64 + 3 * 2048 + 4096u);
  // The base's short last block is found after a spoilt full block too.
  Bytes odd = random_bytes(5000, 13), odd_new = odd;
  odd_new[3000] ^= 1;
  EXPECT_LT(round_trip(odd, odd_new, "short last block"), 64 + 2048 + 64u);
}

// The SHA-1 at offset 4 of our signature, then (from offset 32) a librsync
// signature whose block sums, computed on two threads, equal librsync's.
TEST_F(Delta, SignatureHoldsTheSha1AndLibrsyncBlockSums) {
  for (size_t size : {0, 1, 2048, 3 * 1024 * 1024 + 1234}) {
    Bytes data = random_bytes(size, 20 + size);
    write("file", data);
    ASSERT_EQ(signature("file", "sig"), 0);
    Bytes sig = read("sig");
    ASSERT_GE(sig.size(), 44u);
    EXPECT_EQ(to_hex(&sig[4], 20), sha1_hex(data)) << size;
    char* hex = file_sha1(wide(path("file")).c_str());
    ASSERT_NE(hex, nullptr);
    EXPECT_EQ(std::string(hex), sha1_hex(data));
    std::free(hex);
    uint32_t strong_len = sig[40] << 24 | sig[41] << 16 | sig[42] << 8 | sig[43];
    EXPECT_TRUE(strong_len >= 10 && strong_len <= 16) << strong_len;
    FILE* in = std::fopen(path("file").c_str(), "rb");
    FILE* out = std::fopen(path("rsync.sig").c_str(), "wb");
    ASSERT_EQ(rs_sig_file(in, out, 2048, strong_len, RS_RK_MD4_SIG_MAGIC, nullptr), RS_DONE);
    std::fclose(in);
    std::fclose(out);
    EXPECT_TRUE(read("rsync.sig") == Bytes(sig.begin() + 32, sig.end())) << size;
  }
  EXPECT_EQ(file_sha1(wide(path("missing")).c_str()), nullptr);
  EXPECT_EQ(file_sha1(nullptr), nullptr);
}

TEST_F(Delta, MatchCountsUncoveredBytesAgainstTheRatio) {
  Bytes base = random_bytes(400 * 2048, 40), one = base;
  one[777] ^= 1;
  write("base", base);
  ASSERT_EQ(signature("base", "sig"), 0);
  // 100 blocks of the base followed by 25 blocks' worth of new bytes: a
  // share of exactly 0.2 is uncovered.
  write("mixed", concat(Bytes(base.begin(), base.begin() + 100 * 2048), random_bytes(25 * 2048, 41)));
  write("same", base);
  write("one", one);
  write("unrelated", random_bytes(base.size(), 42));
  write("empty", Bytes());
  const std::tuple<const char*, double, bool> cases[] = {
      {"mixed", 0.19, false},     {"mixed", 0.2, true},     {"mixed", 0.0, false},
      {"mixed", 1.0, true},       {"same", 0.0, true},      {"one", 0.0, false},
      {"unrelated", 0.99, false}, {"unrelated", 1.0, true}, {"empty", 0.0, true}};
  for (const auto& [file, ratio, within] : cases) {
    int32_t result = match("sig", file, ratio);
    EXPECT_TRUE(within ? result > 0 : result == 0) << file << " at " << ratio << ": " << result;
  }
  for (double bad : {-0.01, 1.01, std::nan("")}) EXPECT_LT(match("sig", "same", bad), 0) << bad;
  EXPECT_LT(match("missing", "same", 0.5), 0);
  EXPECT_LT(match("sig", "missing", 0.5), 0);
}

// Files above the size where both cores scan half each: the seam costs at
// most one block of accuracy.
TEST_F(Delta, MatchOnLargeFilesSplitsTheScan) {
  const size_t blocks = 6000;
  Bytes base = random_bytes(blocks * 2048, 50), updated = base;
  for (size_t b = 0; b < blocks; b += 10) updated[b * 2048 + 5] ^= 1;  // every tenth block spoilt
  updated.insert(updated.begin() + updated.size() / 2, 3, 7);          // and a shift at the seam
  round_trip(base, updated, "large");
  EXPECT_EQ(match("sig", "new", 0.09), 0);
  EXPECT_GT(match("sig", "new", 0.11), 0);
}

TEST_F(Delta, NonAsciiUtf16Paths) {
  ASSERT_EQ(mkdir(path("données-日本").c_str(), 0700), 0);
  std::string dir = "données-日本/", base = dir + "bäse-\xF0\x9F\x98\x80.bin", sig = dir + "sïg",
              neu = dir + "nëw";
  Bytes data = random_bytes(10000, 60), updated = concat(data, Bytes{1, 2, 3});
  write(base, data);
  write(neu, updated);
  ASSERT_EQ(signature(base, sig), 0);
  EXPECT_GT(match(sig, neu, 0.2), 0);  // the short last block and 3 bytes are new
  ASSERT_EQ(patch(sig, neu, dir + "pätch"), 0);
  ASSERT_EQ(apply(base, sha1_hex(data), dir + "pätch", dir + "øut"), 0);
  EXPECT_EQ(read(dir + "øut"), updated);
  // A lone surrogate names no file.
  const char16_t bad[] = {u'/', u't', u'm', u'p', u'/', 0xD800, 0};
  EXPECT_EQ(file_sha1(bad), nullptr);
}

TEST_F(Delta, BaseListsAndArgumentsAreChecked) {
  write("base", random_bytes(9000, 70));
  write("new", random_bytes(5000, 71));
  ASSERT_EQ(signature("base", "sig"), 0);
  std::string message;
  auto create = [&](DiffFileList* l, int32_t format, int32_t flags, int32_t level, int32_t verify) {
    char* err = nullptr;
    int32_t r = diff_create_patch(wide(path("new")).c_str(), l, wide(path("p")).c_str(), nullptr, format,
                                  flags, level, verify, &err);
    return take(r, err, &message);
  };
  DiffFileList* list = file_list_init();
  ASSERT_NE(list, nullptr);                // an empty list is not a failure
  EXPECT_LT(create(list, 1, 0, 6, 1), 0);  // but holds no base
  EXPECT_EQ(file_list_append(list, nullptr), nullptr);
  EXPECT_EQ(file_list_append(nullptr, u"x"), nullptr);
  ASSERT_EQ(file_list_append(list, wide(path("sig")).c_str()), list);
  const std::array<int32_t, 4> bad_args[] = {
      {2, 0, 6, 1}, {1, 1, 6, 1}, {1, 0, 20, 1}, {1, 0, -1, 1}, {1, 0, 6, 2}};
  EXPECT_EQ(create(list, 1, 0, 6, 1), 0);
  ASSERT_EQ(std::remove(path("p").c_str()), 0);
  for (const auto& [format, flags, level, verify] : bad_args)
    EXPECT_LT(create(list, format, flags, level, verify), 0) << format << flags << level << verify;
  ASSERT_EQ(file_list_append(list, wide(path("sig")).c_str()), list);
  EXPECT_LT(create(list, 1, 0, 6, 1), 0);
  EXPECT_NE(message.find("one base"), std::string::npos) << message;
  EXPECT_FALSE(exists("p"));
  file_list_cleanup(list);

  const std::u16string base = wide(path("base")), s2 = wide(path("s2"));
  using Sign = std::tuple<const char16_t*, uint32_t, int32_t>;  // file, block size, format
  for (const auto& [file, block, format] :
       {Sign{base.c_str(), 2048, 2}, {base.c_str(), 100, 1}, {nullptr, 2048, 1}}) {
    char* err = nullptr;
    int32_t r = diff_create_signature(file, s2.c_str(), nullptr, block, format, 0, &err);
    EXPECT_LT(take(r, err, nullptr), 0);
  }
  EXPECT_LT(signature("missing", "s2"), 0);
  EXPECT_FALSE(exists("s2"));

  // Apply mode 1|2 keeps the base's permissions; an unknown mode is refused.
  ASSERT_EQ(chmod(path("base").c_str(), 0640), 0);
  ASSERT_EQ(patch("sig", "new", "patch"), 0);
  ASSERT_EQ(apply("base", sha1_hex(read("base")), "patch", "kept", 1 | 2), 0);
  struct stat st;
  ASSERT_EQ(stat(path("kept").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_LT(apply("base", sha1_hex(read("base")), "patch", "odd", 4), 0);
  EXPECT_FALSE(exists("odd"));
}

TEST_F(Delta, ConcurrentCallsOnDifferentFiles) {
  std::vector<std::thread> threads;
  std::vector<int> ok(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t, &ok] {
      std::string n = std::to_string(t);
      Bytes base = random_bytes(200000 + t, 90 + t), updated = concat(random_bytes(100, t), base);
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
