#include "SineWav.h"

#include <QtEndian>

#include <cmath>
#include <limits>

namespace {

constexpr quint32 sampleRate = 44100;
constexpr quint32 bytesPerSample = 2;
// 441 Hz and not 440: a period is exactly 100 samples and can be repeated.
constexpr int samplesPerPeriod = SineWav::PeriodBytes / bytesPerSample;
constexpr double amplitude = 0.25 * 32767;

template <class T> QByteArray littleEndian(T value)
{
    QByteArray bytes(sizeof value, Qt::Uninitialized);
    qToLittleEndian(value, bytes.data());
    return bytes;
}

QByteArray makeHeader(quint32 dataSize)
{
    const quint16 pcm = 1;
    const quint16 channels = 1;
    const QByteArray format = littleEndian(pcm) + littleEndian(channels) + littleEndian(sampleRate)
        + littleEndian(sampleRate * bytesPerSample) + littleEndian(quint16(bytesPerSample))
        + littleEndian(quint16(8 * bytesPerSample));
    const QByteArray chunks = QByteArrayLiteral("WAVEfmt ") + littleEndian(quint32(format.size())) + format
        + QByteArrayLiteral("data") + littleEndian(dataSize);
    const auto greatest = std::numeric_limits<quint32>::max();
    const quint32 size = dataSize == greatest ? greatest : quint32(chunks.size()) + dataSize;
    return QByteArrayLiteral("RIFF") + littleEndian(size) + chunks;
}

QByteArray makePeriod()
{
    QByteArray period;
    for (int i = 0; i < samplesPerPeriod; ++i)
        period += littleEndian(qint16(std::lround(amplitude * std::sin(2 * M_PI * i / samplesPerPeriod))));
    return period;
}

} // namespace

SineWav::SineWav(int seconds)
    : m_endless(seconds == Endless),
      m_dataSize(m_endless ? std::numeric_limits<quint32>::max() : quint32(seconds) * sampleRate * bytesPerSample),
      m_header(makeHeader(m_dataSize))
{
}

qint64 SineWav::size() const
{
    return m_endless ? std::numeric_limits<qint64>::max() : m_header.size() + qint64(m_dataSize);
}

QByteArray SineWav::bytes(qint64 from, int count) const
{
    static const QByteArray period = makePeriod();
    const int wanted = int(qMin<qint64>(count, size() - from));
    QByteArray result = m_header.mid(int(qMin<qint64>(from, m_header.size())), wanted);
    int offset = int((from + result.size() - m_header.size()) % period.size());
    while (result.size() < wanted) {
        result += period.mid(offset, wanted - result.size());
        offset = 0;
    }
    return result;
}
