#include "ToneStreams.h"

#include <QSocketNotifier>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "SineWav.h"

namespace {

constexpr int maximumReaders = 256;
constexpr int pipeSize = 8192; // The kernel rounds up to whole pages.
constexpr int chunkSize = 4096;

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
        const QByteArray chunk = m_tone.bytes(m_position, chunkSize);
        const ssize_t written = ::write(m_writeEnd, chunk.constData(), size_t(chunk.size()));
        if (written > 0)
            m_position += written;
        const bool isReaderGone = written < 0 && errno != EAGAIN && errno != EINTR;
        if (!isReaderGone)
            return;
        m_notifier.setEnabled(false);
        deleteLater();
    }

    int m_writeEnd;
    QSocketNotifier m_notifier;
    SineWav m_tone{ SineWav::Endless };
    qint64 m_position = 0;
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
