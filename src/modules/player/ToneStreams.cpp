#include "ToneStreams.h"

#include <QSocketNotifier>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include "SineWav.h"

namespace {

constexpr int maximumReaders = 256;
constexpr int pipeSize = 256 * 1024;
constexpr int beginningSize = SineWav::HeaderBytes + SineWav::PeriodBytes;

/// As much as a pipe takes, from any place in the stream's beginning. Never freed or written to: pipes hold its pages.
const QByteArray& sound()
{
    static const QByteArray bytes = SineWav(SineWav::Endless).bytes(0, beginningSize + pipeSize);
    return bytes;
}

class ToneStream : public QObject {
public:
    ToneStream(int writeEnd, QObject* parent)
        : QObject(parent), m_writeEnd(writeEnd), m_notifier(writeEnd, QSocketNotifier::Write)
    {
        connect(&m_notifier, &QSocketNotifier::activated, this, [this] { write(); });
    }
    ~ToneStream() override
    {
        m_notifier.setEnabled(false);
        close(m_writeEnd);
    }

private:
    void write()
    {
        const iovec rest{ const_cast<char*>(sound().constData()) + m_position, pipeSize };
        const ssize_t written = vmsplice(m_writeEnd, &rest, 1, SPLICE_F_NONBLOCK);
        m_position += int(std::max<ssize_t>(written, 0));
        if (m_position >= beginningSize)
            m_position = SineWav::HeaderBytes + (m_position - SineWav::HeaderBytes) % SineWav::PeriodBytes;
        const bool isReaderGone = written < 0 && errno != EAGAIN && errno != EINTR;
        if (!isReaderGone)
            return;
        m_notifier.setEnabled(false);
        deleteLater();
    }

    int m_writeEnd;
    QSocketNotifier m_notifier;
    int m_position = 0; ///< In the stream's beginning, or in a later period as in the first.
};

} // namespace

int ToneStreams::open()
{
    int ends[2] = { -1, -1 };
    if (count() >= maximumReaders || pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return -1;
    fcntl(ends[1], F_SETPIPE_SZ, pipeSize);
    new ToneStream(ends[1], this);
    return ends[0];
}
