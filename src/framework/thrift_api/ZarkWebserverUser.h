#pragma once

#include <QString>
#include <QVariant>

/// One web user. JSON: {"name": "admin", "password": "..."}.
class ZarkWebserverUser {
public:
    ZarkWebserverUser() = default;
    ZarkWebserverUser(const QString& name, const QString& password) : m_name(name), m_password(password) { }
    /// From a hash as toVariant() makes it; empty fields for what is missing.
    explicit ZarkWebserverUser(const QVariant& hash);

    const QString& name() const { return m_name; }
    const QString& password() const { return m_password; }
    void setPassword(const QString& password) { m_password = password; }
    QVariant toVariant() const;

    bool operator==(const ZarkWebserverUser& other) const
    {
        return m_name == other.m_name && m_password == other.m_password;
    }
    bool operator!=(const ZarkWebserverUser& other) const { return !(*this == other); }

private:
    QString m_name;
    QString m_password;
};
