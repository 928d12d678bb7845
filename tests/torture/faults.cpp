// Preloaded into the device: makes calls of the C library fail as the torture run wants it, which writes its plan into
// a file that both have mapped (tests/torture/torture.py, class Faults). One process serves any number of plans.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

/// The numbers are the run's too.
enum Kind : int64_t { None, Open, Read, Write, Sync, Accept, Poll, Epoll, Tls, Map, Socket, Thread, Rename, Memory };

struct Plan {
    std::atomic<int64_t> process; // 0: the next one. Its children are left alone.
    std::atomic<int64_t> kind;
    std::atomic<int64_t> first; // Of the calls of this kind, counted from 1, the first that fails,
    std::atomic<int64_t> last; // and the last.
    std::atomic<int64_t> error; // Of files and all else; 0: the call does one byte of what it was asked for.
    std::atomic<int64_t> socketError; // The same for sockets.
    std::atomic<int64_t> least; // Memory: smaller pieces are not counted.
    std::atomic<int64_t> calls;
    std::atomic<int64_t> failed;
    std::atomic<int64_t> clockSeconds; // How far the clock of the day is off.
};

Plan* openPlan()
{
    static Plan idle;
    const char* name = getenv("TORTURE_PLAN");
    const int fd = name ? int(syscall(SYS_openat, AT_FDCWD, name, O_RDWR | O_CLOEXEC)) : -1;
    void* shared = fd < 0 ? MAP_FAILED : mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (fd >= 0)
        close(fd);
    return shared == MAP_FAILED ? &idle : static_cast<Plan*>(shared);
}

/// Whose fault it is: the run looks for the first library that is neither this one nor the C library.
void tellWhere(int number)
{
    void* frames[40];
    backtrace_symbols_fd(frames, backtrace(frames, 40), STDERR_FILENO);
    signal(number, SIG_DFL);
    raise(number);
}

Plan* plan = nullptr;
__attribute__((constructor(101))) void load()
{
    plan = openPlan();
    int64_t nobody = 0;
    plan->process.compare_exchange_strong(nobody, getpid());
    void* first[1];
    backtrace(first, 1); // Loads what it needs while there is memory.
    signal(SIGSEGV, tellWhere);
}

bool due(Kind kind)
{
    if (!plan || plan->kind != kind || plan->process != getpid())
        return false;
    const int64_t call = ++plan->calls;
    if (call < plan->first || call > plan->last)
        return false;
    ++plan->failed;
    return true;
}

enum Verdict { Do, DoLess, Fail };

Verdict judge(Kind kind, int fd)
{
    struct stat status;
    if (!plan || plan->kind != kind || fstat(fd, &status) != 0
        || !(S_ISREG(status.st_mode) || S_ISSOCK(status.st_mode)))
        return Do; // Pipes and the like do not fail.
    const int error = int(S_ISSOCK(status.st_mode) ? plan->socketError : plan->error);
    if (error < 0 || !due(kind))
        return Do;
    errno = error;
    return error == 0 ? DoLess : Fail;
}

template <class Result> Result failed(Result result)
{
    errno = int(plan->error);
    return result;
}

} // namespace

#define REAL(name) static const auto real = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name))

// NOLINTBEGIN
extern "C" {

#define OPEN(name, parameters, ...)                                                                                    \
    int name parameters                                                                                                \
    {                                                                                                                  \
        REAL(name);                                                                                                    \
        va_list list;                                                                                                  \
        va_start(list, flags);                                                                                         \
        const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(list, mode_t) : 0;                                  \
        va_end(list);                                                                                                  \
        return due(Open) ? failed(-1) : real(__VA_ARGS__, mode);                                                       \
    }
OPEN(open, (const char* path, int flags, ...), path, flags)
OPEN(open64, (const char* path, int flags, ...), path, flags)
OPEN(openat, (int at, const char* path, int flags, ...), at, path, flags)
OPEN(openat64, (int at, const char* path, int flags, ...), at, path, flags)

/// `count` is what becomes 1 of a call that does less.
#define TRANSFER(kind, name, parameters, count, ...)                                                                   \
    ssize_t name parameters                                                                                            \
    {                                                                                                                  \
        REAL(name);                                                                                                    \
        const Verdict verdict = judge(kind, fd);                                                                       \
        if (verdict == DoLess && count > 1)                                                                            \
            count = 1;                                                                                                 \
        return verdict == Fail ? -1 : real(__VA_ARGS__);                                                               \
    }
TRANSFER(Read, read, (int fd, void* to, size_t size), size, fd, to, size)
TRANSFER(Read, pread64, (int fd, void* to, size_t size, off64_t at), size, fd, to, size, at)
TRANSFER(Read, recv, (int fd, void* to, size_t size, int flags), size, fd, to, size, flags)
TRANSFER(Read, recvmsg, (int fd, msghdr* to, int flags), to->msg_iovlen, fd, to, flags)
TRANSFER(Write, write, (int fd, const void* from, size_t size), size, fd, from, size)
TRANSFER(Write, pwrite64, (int fd, const void* from, size_t size, off64_t at), size, fd, from, size, at)
TRANSFER(Write, send, (int fd, const void* from, size_t size, int flags), size, fd, from, size, flags)
TRANSFER(Write, sendfile64, (int fd, int from, off64_t* at, size_t size), size, fd, from, at, size)
TRANSFER(Write, writev, (int fd, const iovec* from, int size), size, fd, from, size)
static size_t all; // Of a message none is left out.
TRANSFER(Write, sendmsg, (int fd, const msghdr* from, int flags), all, fd, from, flags)

#define CALL(kind, failure, result, name, parameters, ...)                                                             \
    result name parameters                                                                                             \
    {                                                                                                                  \
        REAL(name);                                                                                                    \
        return due(kind) ? failed<result>(failure) : real(__VA_ARGS__);                                                \
    }
CALL(Sync, -1, int, fsync, (int fd), fd)
CALL(Sync, -1, int, fdatasync, (int fd), fd)
CALL(Accept, -1, int, accept4, (int fd, sockaddr* a, socklen_t* size, int flags), fd, a, size, flags)
CALL(Accept, -1, int, accept, (int fd, sockaddr* a, socklen_t* size), fd, a, size)
CALL(Poll, -1, int, poll, (pollfd * list, nfds_t count, int timeout), list, count, timeout)
CALL(Epoll, -1, int, epoll_wait, (int fd, epoll_event* e, int count, int timeout), fd, e, count, timeout)
CALL(Epoll, -1, int, epoll_ctl, (int fd, int what, int of, epoll_event* e), fd, what, of, e)
CALL(Map, MAP_FAILED, void*, mmap64, (void* a, size_t s, int p, int f, int fd, off64_t at), a, s, p, f, fd, at)
CALL(Socket, -1, int, socket, (int domain, int type, int protocol), domain, type, protocol)
CALL(Socket, -1, int, socketpair, (int domain, int type, int protocol, int* two), domain, type, protocol, two)
CALL(Socket, -1, int, pipe2, (int* two, int flags), two, flags)
CALL(Socket, -1, int, dup, (int fd), fd)
CALL(Thread, int(plan->error), int, pthread_create,
    (pthread_t * id, const pthread_attr_t* how, void* (*run)(void*), void* with), id, how, run, with)
CALL(Rename, -1, int, rename, (const char* from, const char* to), from, to)
CALL(Rename, -1, int, unlink, (const char* path), path)
CALL(Rename, -1, int, ftruncate64, (int fd, off64_t size), fd, size)

// The TLS library is loaded as a plugin's, where RTLD_NEXT does not look. What it says are errors of its own.
#define TLS(result, name, parameters, ...)                                                                             \
    result name parameters                                                                                             \
    {                                                                                                                  \
        static const auto real =                                                                                       \
            reinterpret_cast<result(*) parameters>(dlsym(dlopen("libgnutls.so.30", RTLD_NOLOAD | RTLD_NOW), #name));   \
        return due(Tls) ? result(plan->error) : real(__VA_ARGS__);                                                     \
    }
TLS(ssize_t, gnutls_record_recv, (void* session, void* to, size_t size), session, to, size)
TLS(ssize_t, gnutls_record_send, (void* session, const void* from, size_t size), session, from, size)
TLS(int, gnutls_handshake, (void* session), session)

int clock_gettime(clockid_t clock, timespec* now)
{
    REAL(clock_gettime);
    const int result = real(clock, now);
    if (plan && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += plan->clockSeconds;
    return result;
}
int gettimeofday(timeval* now, void* zone) noexcept
{
    REAL(gettimeofday);
    const int result = real(now, zone);
    if (plan)
        now->tv_sec += plan->clockSeconds;
    return result;
}
time_t time(time_t* result) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (result)
        *result = now.tv_sec;
    return now.tv_sec;
}

#ifndef __SANITIZE_ADDRESS__ // Which has an allocator of its own.
#define ALLOCATE(name, parameters, size, ...)                                                                          \
    void* __libc_##name parameters;                                                                                    \
    void* name parameters                                                                                              \
    {                                                                                                                  \
        const bool fails = plan && int64_t(size) >= plan->least && due(Memory);                                        \
        return fails ? failed<void*>(nullptr) : __libc_##name(__VA_ARGS__);                                            \
    }
ALLOCATE(malloc, (size_t size), size, size)
ALLOCATE(calloc, (size_t count, size_t each), count* each, count, each)
ALLOCATE(realloc, (void* old, size_t size), size, old, size)
#endif
}
// NOLINTEND
