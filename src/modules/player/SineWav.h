#pragma once

#include <QByteArray>

/// A WAV file of an hour of a quiet 441 Hz tone (PCM, 16 bits, mono, 44.1 kHz), as a function of the position: no part
/// of it is ever held. Stateless; any thread.
class SineWav {
public:
    static qint64 size(); ///< Bytes of the whole file, header included.
    /// The bytes from `from` on, `count` of them or what is left to the end.
    static QByteArray bytes(qint64 from, int count);
};
