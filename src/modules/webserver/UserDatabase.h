#pragma once

#include <QList>
#include <QObject>

#include "CMReply.h"
#include "CMValueItem.h"
#include "ZarkWebserverUser.h"

/// The web users: a mirror of the value at ZarkWebserverUsersPath(). An absent or malformed value is no users. While
/// writes of its own are under way it is ahead of the value, and takes none from there.
class UserDatabase : public QObject {
    Q_OBJECT
public:
    UserDatabase();

    bool isEmpty() const { return m_users.isEmpty(); }
    /// One user alone, with an empty password: the device is not set up yet. Two users are a decision somebody took.
    bool isEmptyPassword() const;
    /// The first user of exactly that name; an empty record when there is none.
    ZarkWebserverUser user(const QString& name) const;
    /// False, and nothing changed, for an unknown name or a wrong old password. The new one holds at once; `stored` is
    /// answered when the model holds it, or with the error after which it is the old one again.
    bool changePassword(const QString& name, const QString& oldPassword, const QString& newPassword,
        CMVoidReply stored = CMVoidReply());

Q_SIGNALS:
    void changed();

private:
    void on_users_changed(const ZarkValue& value);
    void write(CMVoidReply stored);

    QList<ZarkWebserverUser> m_users;
    int m_writes = 0; ///< Under way.
    CMValueItem m_item;
};
