#pragma once

#include <QByteArray>
#include <QUrl>

#include "ZarkUrlQuery.h"

/// QUrl with the query as a table of decoded values. The query is split once, on first use.
class ZarkUrl : public QUrl {
public:
    ZarkUrl() = default;
    ZarkUrl(const QUrl& url) : QUrl(url) { }
    explicit ZarkUrl(const QString& url) : QUrl(url) { }

    static ZarkUrl fromEncoded(const QByteArray& url);

    /// The query, percent-encoded, without "?"; null when the URL has none.
    QByteArray encodedQuery() const;
    void setEncodedQuery(const QByteArray& query);

    bool hasQueryItem(const QString& key) const;
    /// The first value of `key`, percent-decoded as UTF-8; null when there is none.
    QString queryItemValue(const QString& key) const;

private:
    const ZarkUrlQuery& items() const;

    mutable ZarkUrlQuery m_items;
    mutable bool m_split = false;
};
