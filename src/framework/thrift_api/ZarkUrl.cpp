#include "ZarkUrl.h"

#include <QRegularExpression>

ZarkUrl ZarkUrl::fromEncoded(const QByteArray& url)
{
    return QUrl::fromEncoded(url);
}

QUrlQuery ZarkUrl::splitQuery(const QByteArray& encoded)
{
    QString query = QString::fromUtf8(encoded);
    // One escape that is none would keep QUrlQuery from decoding any other of its value.
    static const QRegularExpression stray(QStringLiteral("%(?![0-9A-Fa-f]{2})"));
    if (query.contains(QLatin1Char('%')))
        query.replace(stray, QStringLiteral("%25"));
    return QUrlQuery(query);
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
        m_items = splitQuery(encodedQuery());
        m_split = true;
    }
    return m_items;
}
