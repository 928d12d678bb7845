#include "FetchBudget.h"

FetchBudget::Share::Share(const QSharedPointer<FetchBudget>& budget, const QString& client)
    : m_budget(budget), m_client(client)
{
    m_budget->add(m_client, 1, 0);
}

FetchBudget::Share::~Share()
{
    m_budget->add(m_client, -1, -m_bytes);
}

bool FetchBudget::Share::hold(int bytes)
{
    const qint64 limit = m_budget->m_limits.bytes;
    if (m_budget->m_all.bytes > limit - bytes || m_budget->m_clients.value(m_client).bytes > limit / 2 - bytes)
        return false;
    m_bytes += bytes;
    m_budget->add(m_client, 0, bytes);
    return true;
}

QSharedPointer<FetchBudget::Share> FetchBudget::admit(const QString& client)
{
    if (m_all.fetches >= m_limits.fetches || m_clients.value(client).fetches >= m_limits.fetchesPerClient)
        return {};
    ++m_admitted;
    return QSharedPointer<Share>::create(sharedFromThis(), client);
}

void FetchBudget::add(const QString& client, int fetches, qint64 bytes)
{
    Use& one = m_clients[client];
    for (Use* use : { &m_all, &one }) {
        use->fetches += fetches;
        use->bytes += bytes;
    }
    if (one.fetches == 0)
        m_clients.remove(client);
}
