#include "ZarkUrl.h"

ZarkUrl ZarkUrl::fromEncoded(const QByteArray& url)
{
    return QUrl::fromEncoded(url);
}

QByteArray ZarkUrl::encodedQuery() const
{
    return hasQuery() ? query(QUrl::FullyEncoded).toLatin1() : QByteArray();
}

void ZarkUrl::setEncodedQuery(const QByteArray& query)
{
    setQuery(query.isNull() ? QString() : QString::fromLatin1(query));
    m_split = false;
}

bool ZarkUrl::hasQueryItem(const QString& key) const
{
    return items().hasQueryItem(key);
}

QString ZarkUrl::queryItemValue(const QString& key) const
{
    return items().queryItemValue(key, QUrl::FullyDecoded);
}

const QUrlQuery& ZarkUrl::items() const
{
    if (!m_split) {
        m_items.setQuery(query(QUrl::FullyEncoded));
        m_split = true;
    }
    return m_items;
}
