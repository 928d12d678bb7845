#pragma once

#include <QList>
#include <QObject>

#include "CMValueItem.h"
#include "ZarkWebserverUser.h"

/// The web users: a mirror of the value at ZarkWebserverUsersPath(). An absent or malformed value is no users.
class UserDatabase : public QObject {
    Q_OBJECT
public:
    UserDatabase();

    bool isEmpty() const { return m_users.isEmpty(); }
    /// One user alone, with an empty password: the device is not set up yet. Two users are a decision somebody took.
    bool isEmptyPassword() const;
    /// The first user of exactly that name; an empty record when there is none.
    ZarkWebserverUser user(const QString& name) const;
    /// False, and nothing changed, for an unknown name or a wrong old password. The new one holds at once; the write
    /// to the model is not waited for.
    bool changePassword(const QString& name, const QString& oldPassword, const QString& newPassword);

Q_SIGNALS:
    void changed();

private:
    void on_users_changed(const ZarkValue& value);

    QList<ZarkWebserverUser> m_users;
    CMValueItem m_item;
};
