// Stands in front of the C library's file-system calls: each one is counted
// while a plan is armed, and the one the plan names fails. The program that
// links this must export its symbols (ENABLE_EXPORTS), so that the calls made
// inside Qt and the sanitizers' runtimes find these definitions first; each
// passes on to the next definition of its name (RTLD_NEXT).

// Both names of each call (open and open64 ...) are defined here, so the C
// library's headers must not map one onto the other.
#undef _FILE_OFFSET_BITS

#include "SyscallFaults.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace Kel::test::faults {

namespace {

// Every call that is counted, by name.
#define KELTS_FAULT_CALLS(X)                                                                          \
    X(open) X(open64) X(openat) X(openat64) X(creat) X(creat64) X(read) X(pread) X(pread64) X(readv) \
    X(write) X(pwrite) X(pwrite64) X(writev) X(lseek) X(lseek64) X(fstat) X(fstat64) X(stat)        \
    X(stat64) X(lstat) X(lstat64) X(fstatat) X(fstatat64) X(statx) X(access) X(faccessat) X(rename) \
    X(renameat) X(renameat2) X(unlink) X(unlinkat) X(remove) X(mkdir) X(mkdirat) X(rmdir)          \
    X(ftruncate) X(ftruncate64) X(link) X(linkat) X(opendir) X(fdopendir) X(readdir) X(readdir64) X(getdents64) X(mmap) X(mmap64)  \
    X(fcntl) X(fcntl64)

enum Call {
#define KELTS_ENUM(name) call_##name,
    KELTS_FAULT_CALLS(KELTS_ENUM)
#undef KELTS_ENUM
    callCount
};

const char* const callNames[] = {
#define KELTS_NAME(name) #name,
    KELTS_FAULT_CALLS(KELTS_NAME)
#undef KELTS_NAME
};

std::atomic<bool> armed{false};
std::atomic<long long> calls{0};
std::atomic<long long> writes{0};
std::atomic<int> firstFired{-1};
Plan plan;
std::atomic<long long> seen[callCount];

int errorOf(Fault fault)
{
    switch (fault) {
    case Fault::Eio: return EIO;
    case Fault::Enospc: return ENOSPC;
    case Fault::Eacces: return EACCES;
    case Fault::Emfile: return EMFILE;
    case Fault::ShortWrite: return ENOSPC;
    }
    return EIO;
}

bool hits(long long n)
{
    return plan.failAt > 0 && (n == plan.failAt || (plan.persistent && n > plan.failAt));
}

void noteFired(Call call)
{
    int none = -1;
    firstFired.compare_exchange_strong(none, int(call));
}

// Counts a call; true (with errno set) when it is to fail.
bool fails(Call call)
{
    if (!armed.load(std::memory_order_relaxed) || plan.openOf)
        return false;
    seen[call].fetch_add(1, std::memory_order_relaxed);
    const long long n = ++calls;
    static const bool trace = ::getenv("KELTS_FAULT_TRACE") != nullptr;
    if (trace)
        std::fprintf(stderr, "call %lld: %s\n", n, callNames[call]);
    if (plan.fault == Fault::ShortWrite || !hits(n))
        return false;
    noteFired(call);
    errno = errorOf(plan.fault);
    return true;
}

// Counts an open; true (with errno set) when it is to fail.
bool opening(Call call, const char* path)
{
    if (armed.load(std::memory_order_relaxed) && plan.openOf && path && std::strstr(path, plan.openOf)) {
        ++calls;
        noteFired(call);
        errno = errorOf(plan.fault);
        return true;
    }
    return !plan.openOf && fails(call);
}

// How many of `size` bytes a write-like call passes on: all, half (a short
// write) or none (-1: the call fails with errno set).
long long writeBudget(Call call, size_t size)
{
    if (fails(call))
        return -1;
    if (!armed.load(std::memory_order_relaxed) || plan.fault != Fault::ShortWrite || !hits(++writes))
        return (long long)size;
    noteFired(call);
    if (size < 2) {
        errno = ENOSPC;
        return -1;
    }
    return (long long)(size / 2);
}

template <typename F>
F next(const char* name)
{
    return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}

} // namespace

const char* faultName(Fault fault)
{
    switch (fault) {
    case Fault::Eio: return "EIO";
    case Fault::Enospc: return "ENOSPC";
    case Fault::Eacces: return "EACCES";
    case Fault::Emfile: return "EMFILE";
    case Fault::ShortWrite: return "short write";
    }
    return "?";
}

void arm(const Plan& p)
{
    plan = p;
    calls = 0;
    writes = 0;
    firstFired = -1;
    if (::getenv("KELTS_FAULT_TRACE"))
        std::fprintf(stderr, "arm: %s at call %lld%s\n", faultName(p.fault), p.failAt, p.persistent ? " and on" : "");
    armed = true;
}

long long disarm()
{
    armed = false;
    return calls.load();
}

bool fired()
{
    return firstFired.load() >= 0;
}

std::string firedCall()
{
    const int call = firstFired.load();
    return call >= 0 ? callNames[call] : "";
}

const std::map<std::string, long long>& callsSeen()
{
    static std::map<std::string, long long> byName;
    for (int i = 0; i < callCount; ++i)
        if (seen[i].load() > 0)
            byName[callNames[i]] = seen[i].load();
    return byName;
}

} // namespace Kel::test::faults

using namespace Kel::test::faults;

// The calls as the C library declares them. Those that take a mode or an
// argument of varying type pass on what they were given.
#define KELTS_NEXT(name) static const auto real = next<decltype(&::name)>(#name)

// The project builds with hidden symbols; these must be seen from outside.
#pragma GCC visibility push(default)
extern "C" {

int open(const char* path, int flags, ...)
{
    KELTS_NEXT(open);
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = va_arg(ap, mode_t);
    va_end(ap);
    return opening(call_open, path) ? -1 : real(path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    KELTS_NEXT(open64);
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = va_arg(ap, mode_t);
    va_end(ap);
    return opening(call_open64, path) ? -1 : real(path, flags, mode);
}

int openat(int dirFd, const char* path, int flags, ...)
{
    KELTS_NEXT(openat);
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = va_arg(ap, mode_t);
    va_end(ap);
    return opening(call_openat, path) ? -1 : real(dirFd, path, flags, mode);
}

int openat64(int dirFd, const char* path, int flags, ...)
{
    KELTS_NEXT(openat64);
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = va_arg(ap, mode_t);
    va_end(ap);
    return opening(call_openat64, path) ? -1 : real(dirFd, path, flags, mode);
}

int creat(const char* path, mode_t mode)
{
    KELTS_NEXT(creat);
    return opening(call_creat, path) ? -1 : real(path, mode);
}

int creat64(const char* path, mode_t mode)
{
    KELTS_NEXT(creat64);
    return opening(call_creat64, path) ? -1 : real(path, mode);
}

ssize_t read(int fd, void* buf, size_t n)
{
    KELTS_NEXT(read);
    return fails(call_read) ? -1 : real(fd, buf, n);
}

ssize_t pread(int fd, void* buf, size_t n, off_t offset)
{
    KELTS_NEXT(pread);
    return fails(call_pread) ? -1 : real(fd, buf, n, offset);
}

ssize_t pread64(int fd, void* buf, size_t n, off64_t offset)
{
    KELTS_NEXT(pread64);
    return fails(call_pread64) ? -1 : real(fd, buf, n, offset);
}

ssize_t readv(int fd, const struct iovec* iov, int count)
{
    KELTS_NEXT(readv);
    return fails(call_readv) ? -1 : real(fd, iov, count);
}

ssize_t write(int fd, const void* buf, size_t n)
{
    KELTS_NEXT(write);
    const long long budget = writeBudget(call_write, n);
    return budget < 0 ? -1 : real(fd, buf, size_t(budget));
}

ssize_t pwrite(int fd, const void* buf, size_t n, off_t offset)
{
    KELTS_NEXT(pwrite);
    const long long budget = writeBudget(call_pwrite, n);
    return budget < 0 ? -1 : real(fd, buf, size_t(budget), offset);
}

ssize_t pwrite64(int fd, const void* buf, size_t n, off64_t offset)
{
    KELTS_NEXT(pwrite64);
    const long long budget = writeBudget(call_pwrite64, n);
    return budget < 0 ? -1 : real(fd, buf, size_t(budget), offset);
}

ssize_t writev(int fd, const struct iovec* iov, int count)
{
    KELTS_NEXT(writev);
    size_t total = 0;
    for (int i = 0; i < count; ++i)
        total += iov[i].iov_len;
    const long long budget = writeBudget(call_writev, total);
    if (budget < 0)
        return -1;
    if (size_t(budget) == total)
        return real(fd, iov, count);
    // A short write stops inside the first piece that does not fit.
    struct iovec cut[64];
    int used = 0;
    size_t left = size_t(budget);
    for (int i = 0; i < count && i < 64 && left > 0; ++i, ++used) {
        cut[i] = iov[i];
        if (cut[i].iov_len > left)
            cut[i].iov_len = left;
        left -= cut[i].iov_len;
    }
    return real(fd, cut, used);
}

off_t lseek(int fd, off_t offset, int whence) noexcept
{
    KELTS_NEXT(lseek);
    return fails(call_lseek) ? -1 : real(fd, offset, whence);
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept
{
    KELTS_NEXT(lseek64);
    return fails(call_lseek64) ? -1 : real(fd, offset, whence);
}

int fstat(int fd, struct stat* st) noexcept
{
    KELTS_NEXT(fstat);
    return fails(call_fstat) ? -1 : real(fd, st);
}

int fstat64(int fd, struct stat64* st) noexcept
{
    KELTS_NEXT(fstat64);
    return fails(call_fstat64) ? -1 : real(fd, st);
}

int stat(const char* path, struct stat* st) noexcept
{
    KELTS_NEXT(stat);
    return fails(call_stat) ? -1 : real(path, st);
}

int stat64(const char* path, struct stat64* st) noexcept
{
    KELTS_NEXT(stat64);
    return fails(call_stat64) ? -1 : real(path, st);
}

int lstat(const char* path, struct stat* st) noexcept
{
    KELTS_NEXT(lstat);
    return fails(call_lstat) ? -1 : real(path, st);
}

int lstat64(const char* path, struct stat64* st) noexcept
{
    KELTS_NEXT(lstat64);
    return fails(call_lstat64) ? -1 : real(path, st);
}

int fstatat(int dirFd, const char* path, struct stat* st, int flags) noexcept
{
    KELTS_NEXT(fstatat);
    return fails(call_fstatat) ? -1 : real(dirFd, path, st, flags);
}

int fstatat64(int dirFd, const char* path, struct stat64* st, int flags) noexcept
{
    KELTS_NEXT(fstatat64);
    return fails(call_fstatat64) ? -1 : real(dirFd, path, st, flags);
}

int statx(int dirFd, const char* path, int flags, unsigned int mask, struct statx* st) noexcept
{
    KELTS_NEXT(statx);
    return fails(call_statx) ? -1 : real(dirFd, path, flags, mask, st);
}

int access(const char* path, int mode) noexcept
{
    KELTS_NEXT(access);
    return fails(call_access) ? -1 : real(path, mode);
}

int faccessat(int dirFd, const char* path, int mode, int flags) noexcept
{
    KELTS_NEXT(faccessat);
    return fails(call_faccessat) ? -1 : real(dirFd, path, mode, flags);
}

int rename(const char* from, const char* to) noexcept
{
    KELTS_NEXT(rename);
    return fails(call_rename) ? -1 : real(from, to);
}

int renameat(int fromDir, const char* from, int toDir, const char* to) noexcept
{
    KELTS_NEXT(renameat);
    return fails(call_renameat) ? -1 : real(fromDir, from, toDir, to);
}

int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned int flags) noexcept
{
    KELTS_NEXT(renameat2);
    return fails(call_renameat2) ? -1 : real(fromDir, from, toDir, to, flags);
}

int unlink(const char* path) noexcept
{
    KELTS_NEXT(unlink);
    return fails(call_unlink) ? -1 : real(path);
}

int unlinkat(int dirFd, const char* path, int flags) noexcept
{
    KELTS_NEXT(unlinkat);
    return fails(call_unlinkat) ? -1 : real(dirFd, path, flags);
}

int remove(const char* path) noexcept
{
    KELTS_NEXT(remove);
    return fails(call_remove) ? -1 : real(path);
}

int mkdir(const char* path, mode_t mode) noexcept
{
    KELTS_NEXT(mkdir);
    return fails(call_mkdir) ? -1 : real(path, mode);
}

int mkdirat(int dirFd, const char* path, mode_t mode) noexcept
{
    KELTS_NEXT(mkdirat);
    return fails(call_mkdirat) ? -1 : real(dirFd, path, mode);
}

int rmdir(const char* path) noexcept
{
    KELTS_NEXT(rmdir);
    return fails(call_rmdir) ? -1 : real(path);
}

int link(const char* from, const char* to) noexcept
{
    KELTS_NEXT(link);
    return fails(call_link) ? -1 : real(from, to);
}

int linkat(int fromDir, const char* from, int toDir, const char* to, int flags) noexcept
{
    KELTS_NEXT(linkat);
    return fails(call_linkat) ? -1 : real(fromDir, from, toDir, to, flags);
}

int ftruncate(int fd, off_t length) noexcept
{
    KELTS_NEXT(ftruncate);
    return fails(call_ftruncate) ? -1 : real(fd, length);
}

int ftruncate64(int fd, off64_t length) noexcept
{
    KELTS_NEXT(ftruncate64);
    return fails(call_ftruncate64) ? -1 : real(fd, length);
}

DIR* opendir(const char* path)
{
    KELTS_NEXT(opendir);
    return fails(call_opendir) ? nullptr : real(path);
}

DIR* fdopendir(int fd)
{
    KELTS_NEXT(fdopendir);
    return fails(call_fdopendir) ? nullptr : real(fd);
}

// A listing that fails part-way ends early, as readdir reports an error.
struct dirent* readdir(DIR* dir)
{
    KELTS_NEXT(readdir);
    return fails(call_readdir) ? nullptr : real(dir);
}

struct dirent64* readdir64(DIR* dir)
{
    KELTS_NEXT(readdir64);
    return fails(call_readdir64) ? nullptr : real(dir);
}

ssize_t getdents64(int fd, void* buf, size_t n)
{
    KELTS_NEXT(getdents64);
    return fails(call_getdents64) ? -1 : real(fd, buf, n);
}

// Only mappings of files count: anonymous ones are memory, not the disk.
void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept
{
    KELTS_NEXT(mmap);
    if (!(flags & MAP_ANONYMOUS) && fails(call_mmap))
        return MAP_FAILED;
    return real(addr, length, prot, flags, fd, offset);
}

void* mmap64(void* addr, size_t length, int prot, int flags, int fd, off64_t offset) noexcept
{
    KELTS_NEXT(mmap64);
    if (!(flags & MAP_ANONYMOUS) && fails(call_mmap64))
        return MAP_FAILED;
    return real(addr, length, prot, flags, fd, offset);
}

int fcntl(int fd, int cmd, ...)
{
    KELTS_NEXT(fcntl);
    va_list ap;
    va_start(ap, cmd);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    return fails(call_fcntl) ? -1 : real(fd, cmd, arg);
}

int fcntl64(int fd, int cmd, ...)
{
    KELTS_NEXT(fcntl64);
    va_list ap;
    va_start(ap, cmd);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    return fails(call_fcntl64) ? -1 : real(fd, cmd, arg);
}

// The storage waits a second between attempts to open a file; under a plan
// the waits return at once, so that a sweep over every call takes no time.
int nanosleep(const struct timespec* request, struct timespec* remaining)
{
    KELTS_NEXT(nanosleep);
    return armed.load() ? 0 : real(request, remaining);
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec* request, struct timespec* remaining)
{
    KELTS_NEXT(clock_nanosleep);
    return armed.load() ? 0 : real(clock, flags, request, remaining);
}

} // extern "C"
#pragma GCC visibility pop
