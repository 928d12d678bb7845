#pragma once

#include <QByteArray>
#include <QUrl>
#include <QUrlQuery>

/// QUrl with the query as a table of decoded values. The query is split once, on first use.
class ZarkUrl : public QUrl {
public:
    ZarkUrl() = default;
    ZarkUrl(const QUrl& url) : QUrl(url) { }
    explicit ZarkUrl(const QString& url) : QUrl(url) { }

    static ZarkUrl fromEncoded(const QByteArray& url);
    /// A query as a table ("+" is a plus; callers that want a space rewrite it before). Escapes that are none stay as
    /// they are. Values are to be taken as QUrl::FullyDecoded.
    static QUrlQuery splitQuery(const QByteArray& encoded);

    /// The query, percent-encoded, without "?"; null when the URL has none.
    QByteArray encodedQuery() const;
    void setEncodedQuery(const QByteArray& query);

    bool hasQueryItem(const QString& key) const;
    /// The first value of `key`, percent-decoded as UTF-8; null when there is none.
    QString queryItemValue(const QString& key) const;

private:
    const QUrlQuery& items() const;

    mutable QUrlQuery m_items;
    mutable bool m_split = false;
};
