#include "CMSentAnswers.h"

#include <algorithm>
#include <utility>

void CMSentAnswers::sent(quint64 token, bool clientCounts, const QVector<CMPathChanges>& told)
{
    ++m_count;
    m_token = token;
    m_clientCounts = clientCounts;
    m_arrived = false;
    m_told = told;
}

void CMSentAnswers::confirm(quint64 token)
{
    if (!isHeld(token))
        return;
    m_arrived = true;
    if (m_clientCounts)
        return; // The connection may be wrong, the count is not.
    m_token = 0;
    m_told = {};
}

QVector<CMPathChanges> CMSentAnswers::restore(quint64 token)
{
    return isHeld(token) && !m_clientCounts ? takeBack() : QVector<CMPathChanges>();
}

CMSentAnswers::Settlement CMSentAnswers::settle(qint64 received)
{
    Settlement settlement;
    const auto counted = static_cast<quint64>(received);
    if (received == NotCounted ? isOpen() : m_token != 0 && counted == m_count - 1) {
        settlement.lost = takeBack();
    } else if (received != NotCounted && counted != m_count) {
        m_count = counted;
        settlement.outOfStep = true;
    }
    m_token = 0;
    m_told = {};
    return settlement;
}

QVector<CMPathChanges> CMSentAnswers::takeBack()
{
    --m_count;
    m_token = 0;
    return std::exchange(m_told, {});
}

void CMSentAnswers::drop(const CMPath& path)
{
    const auto isOfPath = [&path](const CMPathChanges& changes) {
        return changes.path == path;
    };
    m_told.erase(std::remove_if(m_told.begin(), m_told.end(), isOfPath), m_told.end());
}

void CMSentAnswers::dropRows(const CMPath& path)
{
    for (CMPathChanges& changes : m_told) {
        if (changes.path == path)
            changes.rows.clear();
    }
}
