#include "UserDatabase.h"

#include <algorithm>

#include "CMRoot.h"
#include "WebserverLog.h"
#include "ZarkPaths.h"

namespace {

QList<ZarkWebserverUser> usersOf(const ZarkValue& value)
{
    QList<ZarkWebserverUser> users;
    const QVariantList records = value.webserverUsers();
    for (const QVariant& record : records)
        users.append(ZarkWebserverUser(record));
    return users;
}

} // namespace

UserDatabase::UserDatabase()
    : m_users(usersOf(ZarkValue(CMRoot()->getValue(ZarkWebserverUsersPath())))),
      m_item(nullptr, ZarkWebserverUsersPath())
{
    connect(&m_item, &CMValueItem::changed, this, &UserDatabase::on_users_changed);
}

bool UserDatabase::isEmptyPassword() const
{
    dbglog_scopedFunction(webserverLog());
    return m_users.size() == 1 && m_users.first().password().isEmpty();
}

ZarkWebserverUser UserDatabase::user(const QString& name) const
{
    dbglog_scopedFunction(webserverLog());
    const auto found = std::find_if(
        m_users.cbegin(), m_users.cend(), [&name](const ZarkWebserverUser& user) { return user.name() == name; });
    return found == m_users.cend() ? ZarkWebserverUser() : *found;
}

bool UserDatabase::changePassword(
    const QString& name, const QString& oldPassword, const QString& newPassword, CMVoidReply stored)
{
    dbglog_scopedFunction(webserverLog());
    const auto found = std::find_if(
        m_users.begin(), m_users.end(), [&name](const ZarkWebserverUser& user) { return user.name() == name; });
    if (found == m_users.end() || found->password() != oldPassword)
        return false;
    found->setPassword(newPassword);
    write(stored);
    return true;
}

void UserDatabase::write(CMVoidReply stored)
{
    QVariantList records;
    for (const ZarkWebserverUser& user : qAsConst(m_users))
        records.append(user.toVariant());
    ZarkValue value;
    value.setWebserverUsers(records);
    ++m_writes;
    CMVoidReply reply;
    reply.onFinished(this, [this, stored](const CMError& error) mutable {
        // What the value was meanwhile is older than what is held here; and after a failure it is the only truth.
        if (--m_writes == 0)
            on_users_changed(ZarkValue(CMRoot()->getValue(ZarkWebserverUsersPath())));
        if (error.isEmpty())
            stored.finish();
        else
            stored.fail(error);
    });
    CMRoot()->setValue(ZarkWebserverUsersPath(), value, reply);
}

void UserDatabase::on_users_changed(const ZarkValue& value)
{
    const QList<ZarkWebserverUser> users = usersOf(value);
    if (m_writes > 0 || users == m_users)
        return;
    m_users = users;
    Q_EMIT changed();
}
