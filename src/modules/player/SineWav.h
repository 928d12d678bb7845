#pragma once

#include <QByteArray>

/// A WAV file of a quiet 441 Hz tone (PCM, 16 bits, mono, 44.1 kHz), as a function of the position: no part of it is
/// ever held but the header. Any thread.
class SineWav {
public:
    static constexpr int Endless = 0; ///< Its header gives the greatest sizes there are, as streams have it.
    static constexpr int HeaderBytes = 44;
    static constexpr int PeriodBytes = 200; ///< Behind the header, the same bytes come again and again.

    explicit SineWav(int seconds);

    qint64 size() const; ///< Bytes of the whole file, header included.
    /// The bytes from `from` on, `count` of them or what is left to the end.
    QByteArray bytes(qint64 from, int count) const;

private:
    bool m_endless;
    quint32 m_dataSize;
    QByteArray m_header;
};
