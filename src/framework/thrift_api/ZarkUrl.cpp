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
    return items().hasItem(key);
}

QString ZarkUrl::queryItemValue(const QString& key) const
{
    return items().value(key);
}

const ZarkUrlQuery& ZarkUrl::items() const
{
    if (!m_split) {
        m_items = ZarkUrlQuery(encodedQuery());
        m_split = true;
    }
    return m_items;
}
