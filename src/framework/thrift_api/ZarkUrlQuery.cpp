#include "ZarkUrlQuery.h"

#include <QList>

namespace {

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

QString decoded(const QByteArray& text)
{
    if (!text.contains('%'))
        return QString::fromUtf8(text);
    QByteArray bytes;
    bytes.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        const int high = text.at(i) == '%' && i + 2 < text.size() ? hexDigit(text.at(i + 1)) : -1;
        const int low = high >= 0 ? hexDigit(text.at(i + 2)) : -1;
        if (low < 0) {
            bytes.append(text.at(i));
        } else {
            bytes.append(static_cast<char>(high * 16 + low));
            i += 2;
        }
    }
    return QString::fromUtf8(bytes);
}

} // namespace

ZarkUrlQuery::ZarkUrlQuery(const QByteArray& encoded)
{
    if (encoded.isEmpty())
        return;
    const QList<QByteArray> items = encoded.split('&');
    m_items.reserve(items.size());
    for (const QByteArray& item : items) {
        const int equals = item.indexOf('=');
        if (equals < 0)
            m_items.append({ decoded(item), QStringLiteral("") });
        else
            m_items.append({ decoded(item.left(equals)), decoded(item.mid(equals + 1)) });
    }
}

QString ZarkUrlQuery::value(const QString& key) const
{
    const QString* found = find(key);
    return found ? *found : QString();
}

const QString* ZarkUrlQuery::find(const QString& key) const
{
    for (const auto& item : m_items) {
        if (item.first == key)
            return &item.second;
    }
    return nullptr;
}
