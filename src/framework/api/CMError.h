#pragma once

#include <QMetaType>
#include <QString>
#include <QVariant>

#include "TrString.h"

/// Why a request to the configuration tree failed; isEmpty() when it did not.
/// JSON: {"name": "outOfRange", "message": "..."}. Names are for programs and never change; messages are for people.
class CMError {
public:
    // The names that the framework itself gives.
    static constexpr const char* NotFound = "notFound"; ///< No such node.
    static constexpr const char* UnknownRole = "unknownRole";
    static constexpr const char* InvalidType = "invalidType"; ///< The value is of another type than the node.
    static constexpr const char* OutOfRange = "outOfRange"; ///< Below the minimum, above the maximum, off the step.
    static constexpr const char* NotAnOption = "notAnOption";
    static constexpr const char* NotModifiable = "notModifiable";
    static constexpr const char* NotSupported = "notSupported"; ///< This kind of node does not do that.
    static constexpr const char* InvalidRange = "invalidRange"; ///< Rows that the list does not have.
    static constexpr const char* OutdatedVersion = "outdatedVersion";
    static constexpr const char* StoreFailed = "storeFailed"; ///< Not written to disk, and therefore not set.
    static constexpr const char* Busy = "busy"; ///< One at a time.
    static constexpr const char* Failed = "failed";
    static constexpr const char* Abandoned = "abandoned"; ///< Whoever should have answered has gone.

    CMError() = default;
    CMError(const char* name, const TrString& message) : m_name(QString::fromLatin1(name)), m_message(message) { }

    bool isEmpty() const { return m_name.isEmpty(); }
    const QString& name() const { return m_name; }
    const TrString& message() const { return m_message; }
    QVariant toVariant() const;

private:
    QString m_name;
    TrString m_message;
};

Q_DECLARE_METATYPE(CMError)
