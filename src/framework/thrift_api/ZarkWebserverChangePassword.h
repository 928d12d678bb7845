#pragma once

#include <QString>
#include <QVariant>

/// The argument of the password command. JSON: {"name": "...", "oldPassword": "...", "newPassword": "..."}.
struct ZarkWebserverChangePassword {
    QString name;
    QString oldPassword;
    QString newPassword;

    static ZarkWebserverChangePassword fromVariant(const QVariant& hash);
    QVariant toVariant() const;
};
