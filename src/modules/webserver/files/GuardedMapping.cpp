#include "GuardedMapping.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <limits>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "WebserverLog.h"

namespace {

constexpr int NoSocket = -1;
constexpr quint64 ReservedBytes = 64 * 1024 * 1024;
constexpr int MaximumDescriptors = 16; ///< Clients need the others; the table of connections leaves so many.
constexpr gsize SmallestKept = 128 * 1024; ///< A smaller file is never sent from its descriptor.
constexpr quint64 SmallAddressSpace = quint64(2) << 30; ///< Of a process with 32 bits, in the worst case.

quint64 addressSpace()
{
    rlimit space{};
    if (getrlimit(RLIMIT_AS, &space) == 0 && space.rlim_cur != RLIM_INFINITY)
        return space.rlim_cur;
    return sizeof(void*) > 4 ? std::numeric_limits<quint64>::max() : SmallAddressSpace;
}

quint64 usedAddressSpace()
{
    unsigned long pages = 0;
    FILE* statistics = fopen("/proc/self/statm", "re");
    if (!statistics)
        return 0;
    const bool known = fscanf(statistics, "%lu", &pages) == 1;
    fclose(statistics);
    return known ? quint64(pages) * static_cast<quint64>(sysconf(_SC_PAGESIZE)) : 0;
}

std::atomic<int> keptDescriptors{ 0 };

// A descriptor of the same open file; -1 when there is none to spare.
int keepDescriptor(int fd, gsize length)
{
    if (length < SmallestKept)
        return -1;
    const int kept = ++keptDescriptors <= MaximumDescriptors ? fcntl(fd, F_DUPFD_CLOEXEC, 0) : -1;
    if (kept < 0)
        --keptDescriptors;
    return kept;
}

void releaseDescriptor(int fd)
{
    if (fd < 0)
        return;
    close(fd);
    --keptDescriptors;
}

// Files must not take the address space that the rest of the process lives on.
bool leavesRoom(quint64 length)
{
    const quint64 space = addressSpace();
    return space == std::numeric_limits<quint64>::max() || usedAddressSpace() + length + ReservedBytes <= space;
}

} // namespace

/// What the signal handler knows of one mapping. Written before the mapping is read, and never freed, so that the
/// handler needs no lock.
struct GuardedMapping::Slot {
    std::atomic<quintptr> begin{ 0 }; ///< 0: the slot is free.
    std::atomic<quintptr> end{ 0 }; ///< Behind the last page.
    std::array<std::atomic<int>, 64> sockets{}; ///< NoSocket where there is none.
    std::atomic<bool> damaged{ false };
    Slot* next = nullptr;

    Slot() { std::fill(sockets.begin(), sockets.end(), NoSocket); }
    /// The first entry with this value; null when there is none.
    std::atomic<int>* entry(int socket)
    {
        const auto found = std::find(sockets.begin(), sockets.end(), socket);
        return found == sockets.end() ? nullptr : &*found;
    }
};

class GuardedMapping::Registry {
public:
    static Registry& instance()
    {
        static auto* registry = new Registry; // The handler stays installed for as long as the process lives.
        return *registry;
    }

    Slot* take(const void* begin, gsize length);
    void release(Slot* slot);
    Slot* find(quintptr address) const;
    const struct sigaction& previous() const { return m_previous; }
    quintptr pageMask() const { return m_pageMask; }

private:
    Registry();

    std::atomic<Slot*> m_slots{ nullptr };
    std::mutex m_mutex; ///< Of m_free; the handler does not use it.
    std::vector<Slot*> m_free;
    struct sigaction m_previous = {};
    quintptr m_pageMask;
};

GuardedMapping::Registry::Registry() : m_pageMask(static_cast<quintptr>(sysconf(_SC_PAGESIZE)) - 1)
{
    struct sigaction action = {};
    action.sa_sigaction = &GuardedMapping::onBusError;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    sigaction(SIGBUS, nullptr, &m_previous);
    sigaction(SIGBUS, &action, nullptr);
}

GuardedMapping::Slot* GuardedMapping::Registry::take(const void* begin, gsize length)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Slot* slot = nullptr;
    if (m_free.empty()) {
        slot = new Slot;
        slot->next = m_slots.load(std::memory_order_relaxed);
        m_slots.store(slot, std::memory_order_release);
    } else {
        slot = m_free.back();
        m_free.pop_back();
    }
    const auto address = reinterpret_cast<quintptr>(begin);
    slot->damaged = false;
    slot->end = (address + length + m_pageMask) & ~m_pageMask;
    slot->begin = address;
    return slot;
}

void GuardedMapping::Registry::release(Slot* slot)
{
    slot->begin = 0;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_free.push_back(slot);
}

GuardedMapping::Slot* GuardedMapping::Registry::find(quintptr address) const
{
    for (Slot* slot = m_slots.load(std::memory_order_acquire); slot; slot = slot->next) {
        const quintptr begin = slot->begin;
        if (begin && address >= begin && address < slot->end)
            return slot;
    }
    return nullptr;
}

// Only what is safe in a signal handler: atomics and system calls.
void GuardedMapping::onBusError(int signal, siginfo_t* info, void* context)
{
    const int savedErrno = errno;
    const Registry& registry = Registry::instance();
    const auto address = reinterpret_cast<quintptr>(info->si_addr);
    Slot* slot = info->si_code > 0 ? registry.find(address) : nullptr; // Not one that kill() sent.
    if (slot) {
        for (const std::atomic<int>& socket : slot->sockets) {
            const int descriptor = socket;
            if (descriptor != NoSocket)
                shutdown(descriptor, SHUT_RDWR);
        }
        slot->damaged = true;
        const quintptr page = address & ~registry.pageMask();
        const void* zeros = mmap(reinterpret_cast<void*>(page), slot->end - page, PROT_READ,
            MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0);
        errno = savedErrno;
        if (zeros != MAP_FAILED)
            return;
    }
    const struct sigaction& previous = registry.previous();
    if (previous.sa_flags & SA_SIGINFO)
        return previous.sa_sigaction(signal, info, context);
    if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN)
        return previous.sa_handler(signal);
    // The read is repeated on return, and ends the process as it would have without this handler.
    ::signal(SIGBUS, SIG_DFL);
    if (info->si_code <= 0)
        raise(SIGBUS);
}

std::shared_ptr<GuardedMapping> GuardedMapping::map(int fd, GError** error)
{
    dbglog_scopedFunction(webserverLog());
    struct stat status = {};
    if (fstat(fd, &status) == 0 && !leavesRoom(static_cast<quint64>(status.st_size))) {
        g_set_error_literal(error, G_FILE_ERROR, G_FILE_ERROR_NOMEM, "Too many files are being sent");
        return nullptr;
    }
    GMappedFile* file = g_mapped_file_new_from_fd(fd, FALSE, error);
    return file ? std::shared_ptr<GuardedMapping>(new GuardedMapping(file, fd)) : nullptr;
}

GuardedMapping::GuardedMapping(GMappedFile* file, int fd)
    : m_file(file), m_descriptor(keepDescriptor(fd, g_mapped_file_get_length(file)))
{
    if (length() > 0)
        m_slot = Registry::instance().take(data(), length());
}

GuardedMapping::~GuardedMapping()
{
    // First the slot: the addresses may be another mapping's as soon as they are free.
    if (m_slot)
        Registry::instance().release(m_slot);
    g_mapped_file_unref(m_file);
    releaseDescriptor(m_descriptor);
}

bool GuardedMapping::isDamaged() const
{
    return m_slot && m_slot->damaged;
}

bool GuardedMapping::canBeSent() const
{
    return !m_slot || m_slot->entry(NoSocket);
}

GuardedMapping::Sending::Sending(const std::shared_ptr<GuardedMapping>& mapping, int socket)
    : m_mapping(mapping), m_entry(mapping->m_slot ? mapping->m_slot->entry(NoSocket) : nullptr)
{
    if (m_entry)
        *m_entry = socket;
}

GuardedMapping::Sending::~Sending()
{
    if (m_entry)
        *m_entry = NoSocket;
}
