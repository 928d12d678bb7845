#pragma once

#include <QtGlobal>

#include <gio/gio.h>

#include <atomic>
#include <memory>

/// A file mapped into memory for reading that survives what happens to the file.
///
/// Reading a mapping beyond the end of a file that has become shorter raises SIGBUS. A process-wide handler, installed
/// with the first mapping, puts zeros in the place of the rest of a mapping made here, marks it as damaged, and shuts
/// down the sockets that it is being sent to, so that no zero is taken for the file's content. A SIGBUS of any other
/// origin goes to the handler that was there before. (The kernel itself, reading for send(), raises no signal: the call
/// fails.) May be released on any thread.
class GuardedMapping {
public:
    /// Maps the open file `fd`, which may be closed afterwards. Null with `error` set when it cannot be mapped, or
    /// would leave less than 64 MiB of the process's address space to everything else.
    static std::shared_ptr<GuardedMapping> map(int fd, GError** error);
    ~GuardedMapping();
    GuardedMapping(const GuardedMapping&) = delete;
    GuardedMapping& operator=(const GuardedMapping&) = delete;

    GMappedFile* file() const { return m_file; }
    const char* data() const { return g_mapped_file_get_contents(m_file); } ///< Null for an empty file.
    gsize length() const { return g_mapped_file_get_length(m_file); }
    /// Of the mapped file, for those who would rather read it; -1 when it is not kept, as there are enough of them.
    int descriptor() const { return m_descriptor; }

    /// Whether something was read that is not the file's content.
    bool isDamaged() const;
    /// Whether there is room for another Sending.
    bool canBeSent() const;

    /// While one lives, its socket is shut down with the first read that finds no file, before that read returns.
    class Sending {
    public:
        Sending(const std::shared_ptr<GuardedMapping>& mapping, int socket);
        ~Sending();
        Sending(const Sending&) = delete;
        Sending& operator=(const Sending&) = delete;

    private:
        std::shared_ptr<GuardedMapping> m_mapping;
        std::atomic<int>* m_entry;
    };

private:
    struct Slot;
    class Registry;

    GuardedMapping(GMappedFile* file, int fd);
    static void onBusError(int signal, siginfo_t* info, void* context);

    GMappedFile* m_file;
    Slot* m_slot = nullptr; ///< Null for an empty file.
    int m_descriptor = -1;
};
