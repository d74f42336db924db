// The applier: runs the delta stream's instructions, reading copies from
// the base straight into the result's buffers.
#include <algorithm>
#include <cstring>

#include "delta_stream.h"

namespace zeldiff {
namespace {

constexpr uint8_t kOpEnd = 0, kOpLiteral = 1, kOpCopy = 2;
constexpr size_t kReadBuffer = 256 * 1024;
// Result buffers: enough in flight that neither the hash nor the writes
// wait for the other, few enough to stay a few MiB. Each side wakes the
// other only for a batch of buffers, as on a busy machine every wait costs a
// turn of the scheduler.
constexpr uint64_t kRing = 32;
constexpr uint64_t kBatch = kRing / 2;
// Small enough that a buffer just filled from the base is still in the
// core's cache when it is copied to the file: with 1 MiB buffers both
// copies ran from memory and took about twice as long.
constexpr size_t kResultBuffer = 64 * 1024;
// Blocks are allocated this far ahead of the writes: far enough that it
// takes few calls, near enough that a patch claiming a huge result cannot
// claim much disk beyond what it really writes.
constexpr uint64_t kReserveAhead = 64 << 20;
// For a durable result, writeback is started every this many bytes.
constexpr uint64_t kWritebackStep = 8 << 20;

[[noreturn]] void damaged(const char* why) { throw DiffError(std::string("The patch is damaged: ") + why); }

// The delta stream, read in large pieces from its source.
class StreamReader {
 public:
  explicit StreamReader(const Source& source) : source_(source), buffer_(kReadBuffer) {}

  // False at the end of the data.
  bool fill() {
    if (pos_ == end_ && !eof_) {
      end_ = source_(buffer_.data(), buffer_.size());
      pos_ = 0;
      eof_ = end_ == 0;
    }
    return pos_ != end_;
  }
  uint8_t byte() {
    if (!fill()) throw DiffError("The patch is truncated");
    return buffer_[pos_++];
  }
  uint64_t varint() {
    uint64_t v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      uint8_t b = byte();
      if (shift == 63 && b > 1) break;
      v |= uint64_t{b & 0x7Fu} << shift;
      if ((b & 0x80) == 0) return v;
    }
    damaged("a number is too long");
  }
  void read(uint8_t* out, size_t n) {
    while (n != 0) {
      if (!fill()) throw DiffError("The patch is truncated");
      size_t k = std::min(n, end_ - pos_);
      std::memcpy(out, &buffer_[pos_], k);
      pos_ += k, out += k, n -= k;
    }
  }

 private:
  const Source& source_;
  std::vector<uint8_t> buffer_;
  size_t pos_ = 0, end_ = 0;
  bool eof_ = false;
};

int64_t unzigzag(uint64_t v) { return static_cast<int64_t>(v >> 1) ^ -static_cast<int64_t>(v & 1); }

}  // namespace

void delta_decode(const Source& source, const File& base, uint64_t base_size, uint64_t new_size,
                  ResultWriter& out) {
  StreamReader in(source);
  uint64_t last_end = 0;
  for (;;) {
    uint8_t op = in.byte();
    if (op == kOpEnd) break;
    if (op != kOpLiteral && op != kOpCopy) damaged("unknown instruction");
    uint64_t offset = 0;
    if (op == kOpCopy) {
      int64_t delta = unzigzag(in.varint());
      uint64_t magnitude = delta < 0 ? 0 - static_cast<uint64_t>(delta) : static_cast<uint64_t>(delta);
      if (delta < 0 ? magnitude > last_end : magnitude > base_size - last_end)
        damaged("a copy lies outside the base");
      offset = delta < 0 ? last_end - magnitude : last_end + magnitude;
    }
    uint64_t n = in.varint();
    if (n == 0) damaged("an empty instruction");
    if (n > new_size - out.written()) damaged("it builds more data than it states");
    if (op == kOpCopy) {
      if (n > base_size - offset) damaged("a copy lies outside the base");
      last_end = offset + n;
    }
    while (n != 0) {
      size_t room = 0;
      uint8_t* at = out.room(&room);
      size_t k = static_cast<size_t>(std::min<uint64_t>(room, n));
      if (op == kOpLiteral) {
        in.read(at, k);
      } else if (base.read_at(at, k, offset) != k) {
        throw DiffError("The base file changed while the patch was applied");
      }
      out.advance(k);
      offset += k, n -= k;
    }
  }
  if (in.fill()) throw DiffError("The patch has unexpected data after its end");
}

ResultWriter::ResultWriter(OutputFile& out, uint64_t size, bool durable)
    : out_(out), buffers_(kRing), sizes_(kRing), size_(size), durable_(durable) {
  thread_ = std::thread([this] { run(); });
}

ResultWriter::~ResultWriter() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = abandoned_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

uint8_t* ResultWriter::room(size_t* n) {
  if (fill_ == kResultBuffer) send();
  size_t slot = sent_ % kRing;
  if (fill_ == 0) {
    // The slot's previous buffer must be hashed before it is refilled.
    std::unique_lock<std::mutex> lock(mutex_);
    if (hashed_ + kRing == sent_) {
      writer_waits_ = true;
      changed_.wait(lock, [this] { return hashed_ + kBatch >= sent_; });
      writer_waits_ = false;
    }
    lock.unlock();
    if (!buffers_[slot]) buffers_[slot].reset(new uint8_t[kResultBuffer]);
  }
  *n = kResultBuffer - fill_;
  return buffers_[slot].get() + fill_;
}

void ResultWriter::send() {
  size_t slot = sent_ % kRing;
  sizes_[slot] = fill_;
  bool wake;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++sent_;
    wake = hasher_waits_ && hashed_ + kBatch <= sent_;
  }
  if (wake) changed_.notify_all();
  if (reserved_ < size_ && written_ + kReserveAhead / 2 > reserved_) {
    uint64_t end = std::min(size_, written_ + kReserveAhead);  // past reserved_ by both conditions
    out_.reserve(reserved_, end - reserved_);
    reserved_ = end;
  }
  out_.write(buffers_[slot].get(), fill_);
  fill_ = 0;
  if (durable_ && written_ - written_back_ >= kWritebackStep) {
    out_.start_writeback(written_back_, written_ - written_back_);
    written_back_ = written_;
  }
}

void ResultWriter::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    hasher_waits_ = true;
    changed_.wait(lock, [this] { return hashed_ + kBatch <= sent_ || closed_; });
    hasher_waits_ = false;
    if (abandoned_ || hashed_ == sent_) return;
    while (hashed_ < sent_ && !abandoned_) {
      size_t slot = hashed_ % kRing;
      lock.unlock();
      std::exception_ptr error;
      if (!error_) {
        try {
          sha_.update(buffers_[slot].get(), sizes_[slot]);
        } catch (...) {
          error = std::current_exception();
        }
      }
      lock.lock();
      if (error) error_ = error;
      ++hashed_;
      if (writer_waits_ && hashed_ + kBatch >= sent_) changed_.notify_all();
    }
  }
}

void ResultWriter::finish(uint8_t digest[kSha1Size]) {
  if (fill_ != 0) send();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
  }
  changed_.notify_all();
  thread_.join();
  if (error_) std::rethrow_exception(error_);
  sha_.final(digest);
}

}  // namespace zeldiff
