#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

#include <limits>

#include "QueryItems.h"
#include "ZarkJson.h"

/// The parameters of one request, wherever they stood: in a query or in a form, where all are texts, or in a JSON
/// object. A JSON null is a parameter that is not there, except to value().
class RequestParameters {
public:
    RequestParameters() = default;
    /// `maximumValues` bounds the JSON inside texts.
    explicit RequestParameters(const QueryItems& query, int maximumValues = ZarkJson::AnyNumber)
        : m_query(query), m_maximumValues(maximumValues)
    {
    }
    explicit RequestParameters(const QVariantHash& body, int maximumValues = ZarkJson::AnyNumber)
        : m_body(body), m_maximumValues(maximumValues)
    {
    }

    bool has(const QString& key) const { return value(key).isValid(); }
    QVariant value(const QString& key) const; ///< As it was sent; invalid when it is not there.
    QString text(const QString& key) const { return value(key).toString(); }
    /// False for a text that is null or not there.
    bool readText(const QString& key, QString* text) const;
    /// The texts of a list, or those that a "," separates in one text. False for anything else.
    bool readTexts(const QString& key, QStringList* texts) const;
    /// The JSON value that a text holds, or the value itself when it is no text. Invalid, with the reason in `error`
    /// (may be null), for a text that is no JSON.
    QVariant json(const QString& key, ZarkError* error) const;
    /// An integer: a number without a fraction (some languages write all theirs as 4.0), or a text of decimal digits.
    /// False for anything else, null included, and for what T cannot hold; true, with nothing changed, when it is not
    /// there.
    template <class T> bool readInteger(const QString& key, T* integer) const
    {
        qint64 wide = *integer;
        const bool ok = readInteger(key, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), &wide);
        *integer = ok ? static_cast<T>(wide) : *integer;
        return ok;
    }

private:
    bool readInteger(const QString& key, qint64 minimum, qint64 maximum, qint64* integer) const;

    QueryItems m_query;
    QVariantHash m_body;
    int m_maximumValues = ZarkJson::AnyNumber;
};
