#pragma once

#include <QByteArray>
#include <QPair>
#include <QString>
#include <QVector>

/// The query of a URL as a table of decoded values, split and decoded once (RFC 3986, section 3.4, with the
/// "key=value&key=value" convention of forms). "+" is a plus; callers that want a space rewrite it before.
class ZarkUrlQuery {
public:
    ZarkUrlQuery() = default;
    /// Escapes that are none stay as they are; what is not UTF-8 becomes U+FFFD.
    explicit ZarkUrlQuery(const QByteArray& encoded);

    bool hasItem(const QString& key) const { return find(key) != nullptr; }
    /// The first value of `key`; empty for a key without "=", null when there is no such key.
    QString value(const QString& key) const;

private:
    const QString* find(const QString& key) const;

    QVector<QPair<QString, QString>> m_items;
};
