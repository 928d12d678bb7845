#pragma once

#include <QVector>

#include "CMPendingChanges.h"

/// What became of the answers that told one client something. The last of them is *held*, with what it told, until it
/// is settled. Knows nothing of connections: others say what they saw of them, and the client what it counted, which
/// goes before that.
class CMSentAnswers {
public:
    static constexpr qint64 NotCounted = -1;

    struct Settlement {
        QVector<CMPathChanges> lost; ///< To be told again.
        bool outOfStep = false; ///< The client knows of other answers than these: everything is to be told.
    };

    /// The answer to poll `token`, never 0, was sent. The one before it is settled.
    void sent(quint64 token, bool clientCounts, const QVector<CMPathChanges>& told);

    bool isHeld(quint64 token) const { return token != 0 && token == m_token; }
    /// One is held, and nobody has said yet whether it arrived.
    bool isOpen() const { return m_token != 0 && !m_arrived; }
    void confirm(quint64 token);
    /// What that answer told and has to be told again; nothing when a count will tell, or the token is settled.
    QVector<CMPathChanges> restore(quint64 token);

    /// The next poll has come, with the client's count of answers, from 0, or NotCounted. Settles what is held: without
    /// a count, what has not been confirmed was cut off, since whoever reads an answer to its end asks after it.
    Settlement settle(qint64 received);

    /// Nothing of this path, or only of its rows, is to be told again.
    void drop(const CMPath& path);
    void dropRows(const CMPath& path);

private:
    QVector<CMPathChanges> takeBack();

    quint64 m_count = 0; // Of all that were not taken back. Unsigned, as a client may send any number.
    quint64 m_token = 0; // 0: none is held.
    bool m_clientCounts = false;
    bool m_arrived = false;
    QVector<CMPathChanges> m_told;
};
