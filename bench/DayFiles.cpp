// The limit: hand-encoded day files through write(2) and read(2).

#include "DayFiles.h"

#include "Harness.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <unistd.h>

namespace bench {

namespace {

// Whole records only, so that every read and write after the first stays
// aligned to the record and the buffer to the page.
constexpr long long kChunkRecords = (1 << 20) / kDayRecordBytes;
constexpr size_t kChunkBytes = size_t(kChunkRecords) * kDayRecordBytes;

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
using Buffer = std::unique_ptr<unsigned char, FreeDeleter>;

Buffer pageAlignedBuffer()
{
    const size_t rounded = (kChunkBytes + 4095) / 4096 * 4096;
    return Buffer(static_cast<unsigned char*>(std::aligned_alloc(4096, rounded)));
}

void putBigEndian32(unsigned char* p, uint32_t v)
{
    v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}

void putBigEndianDouble(unsigned char* p, double d)
{
    uint64_t bits;
    std::memcpy(&bits, &d, 8);
    bits = __builtin_bswap64(bits);
    std::memcpy(p, &bits, 8);
}

// Out of line: next to the read and write calls the compiler kept the loop's
// state in memory.
__attribute__((noinline)) void encode(const double* values, long long first, long long n, unsigned char* out)
{
    for (long long i = 0; i < n; ++i, out += kDayRecordBytes) {
        putBigEndian32(out, uint32_t((first + i) * kSecondMs));
        putBigEndianDouble(out + 4, values[i]);
    }
}

struct Decoded {
    long long ts[kChunkRecords];
    double value[kChunkRecords];
};

__attribute__((noinline)) double decode(const unsigned char* p, long long n, long long base, Decoded& out)
{
    double sum = 0.0;
    for (long long i = 0; i < n; ++i, p += kDayRecordBytes) {
        uint32_t offset;
        uint64_t bits;
        std::memcpy(&offset, p, 4);
        std::memcpy(&bits, p + 4, 8);
        bits = __builtin_bswap64(bits);
        out.ts[i] = base + __builtin_bswap32(offset);
        std::memcpy(&out.value[i], &bits, 8);
        sum += out.value[i];
    }
    return sum;
}

void writeAll(int fd, const unsigned char* p, size_t n)
{
    while (n > 0) {
        const ssize_t put = ::write(fd, p, n);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            throw std::runtime_error("write(2) failed");
        p += put;
        n -= size_t(put);
    }
}

} // namespace

std::string dayFilePath(const std::string& dir, long long day)
{
    return dir + "/" + std::to_string(day);
}

double writeDayFiles(const Workload& work, const std::string& dir)
{
    Buffer buffer = pageAlignedBuffer();
    Stopwatch clock;
    clock.start();
    for (long long day = 0; day < work.days(); ++day) {
        const int fd = ::open(dayFilePath(dir, day).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0)
            throw std::runtime_error("cannot create a day file in " + dir);
        const long long first = day * kRecordsPerDay;
        const long long end = std::min(work.records, first + kRecordsPerDay);
        for (long long i = first; i < end; i += kChunkRecords) {
            const long long n = std::min(kChunkRecords, end - i);
            encode(work.values.data() + i, i - first, n, buffer.get());
            writeAll(fd, buffer.get(), size_t(n) * kDayRecordBytes);
        }
        ::close(fd);
    }
    clock.stop();
    return clock.seconds();
}

DayFilesRead readDayFiles(const std::string& dir, long long days)
{
    Buffer buffer = pageAlignedBuffer();
    auto decoded = std::make_unique<Decoded>();
    DayFilesRead result;
    Stopwatch clock;
    clock.start();
    for (long long day = 0; day < days; ++day) {
        const int fd = ::open(dayFilePath(dir, day).c_str(), O_RDONLY);
        if (fd < 0)
            throw std::runtime_error("cannot open a day file in " + dir);
        const long long base = day * kDayMs;
        for (;;) {
            const ssize_t got = ::read(fd, buffer.get(), kChunkBytes);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                break;
            const long long n = got / kDayRecordBytes;
            result.sum += decode(buffer.get(), n, base, *decoded);
            result.records += n;
        }
        ::close(fd);
    }
    clock.stop();
    result.seconds = clock.seconds();
    return result;
}

} // namespace bench
