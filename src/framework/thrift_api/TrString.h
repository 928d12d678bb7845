#pragma once

#include <QMetaType>
#include <QString>

/// A text that is translated when it is shown: the source text is kept, toString() looks it up in the UI language.
class TrString {
public:
    TrString() = default;
    TrString(const QString& source) : m_source(source) { }
    TrString(const char* source) : m_source(QString::fromUtf8(source)) { }

    const QString& source() const { return m_source; }
    bool isEmpty() const { return m_source.isEmpty(); }
    /// The translation of context "Zark" through QCoreApplication::translate, the source text when there is none.
    QString toString() const;

    bool operator==(const TrString& other) const { return m_source == other.m_source; }
    bool operator!=(const TrString& other) const { return !(*this == other); }

private:
    QString m_source;
};

Q_DECLARE_METATYPE(TrString)
