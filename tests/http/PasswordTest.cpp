#include <QCoreApplication>
#include <QJsonObject>
#include <QTest>

#include <csignal>
#include <memory>

#include "Device.h"
#include "Namespace.h"
#include "Signer.h"

namespace {

const QByteArray Node = "settings:webserver/changePassword";
const QByteArray Protected = "/api/getData?path=demo:permissions/protected&roles=value";

QByteArray change(const QByteArray& name, const QByteArray& old, const QByteArray& fresh)
{
    const QJsonObject fields{ { "name", QString(name) }, { "oldPassword", QString(old) },
        { "newPassword", QString(fresh) } };
    const QJsonObject value{ { "type", "webserverChangePassword" }, { "value", fields } };
    return QJsonDocument({ { "path", QString(Node) }, { "role", "activate" }, { "value", value } }).toJson();
}

} // namespace

/// The password as an owner sets it, from a browser that is not on the device.
class PasswordTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_device = std::make_unique<Device>(QStringList(), QStringList{ "--log-level", "trace" });
        QVERIFY(m_device->isRunning());
    }

    void attempts_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("error");
        QTest::newRow("six characters") << change("admin", "", "secret") << QByteArray();
        QTest::newRow("six characters in more bytes") << change("admin", "", "äöüßéè") << QByteArray();
        QTest::newRow("five characters") << change("admin", "", "secre") << QByteArray("New password too short");
        QTest::newRow("five characters in ten bytes")
            << change("admin", "", "äöüßé") << QByteArray("New password too short");
        QTest::newRow("unknown user") << change("nobody", "", "secret") << QByteArray("Invalid username/password");
        QTest::newRow("unknown user, too short")
            << change("nobody", "", "x") << QByteArray("Invalid username/password");
        QTest::newRow("another letter case")
            << change("Admin", "", "secret") << QByteArray("Invalid username/password");
        QTest::newRow("no user") << change("", "", "secret") << QByteArray("Invalid username/password");
        QTest::newRow("wrong old password")
            << change("admin", "wrong!", "secret") << QByteArray("Error changing password");
        QTest::newRow("wrong old, too short") << change("admin", "wrong!", "x") << QByteArray("New password too short");
    }

    void attempts()
    {
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, error);
        QCOMPARE(permission(), QByteArray("\"open\""));
        const HttpReply reply = postRemotely(body);
        QCOMPARE(reply.status, error.isEmpty() ? 200 : 500);
        QCOMPARE(reply.errorMessage(), error);
        QCOMPARE(permission(), error.isEmpty() ? QByteArray("\"protected\"") : QByteArray("\"open\""));
    }

    void aChangedPasswordEndsTheOldSignatures()
    {
        const QByteArray uri = "http://192.0.2.1:" + QByteArray::number(m_device->port());
        QCOMPARE(postRemotely(change("admin", "", "first-secret")).status, 200);
        QCOMPARE(getRemotely(Protected, Signer("admin", "first-secret").forGet(uri + Protected)), 200);

        // Nobody changes it any more without a signature, and a signature by itself is not the old password.
        const QByteArray second = change("admin", "first-secret", "second-secret");
        QCOMPARE(postRemotely(second).status, 401);
        const auto signedBy = [&uri](const QByteArray& password, const QByteArray& body) {
            return Signer("admin", password).forPost(uri + "/api/setData", body);
        };
        const QByteArray guess = change("admin", "", "third-secret");
        QCOMPARE(
            postRemotely(guess, signedBy("first-secret", guess)).errorMessage(), QByteArray("Error changing password"));
        const QByteArray old = Signer("admin", "first-secret").forGet(uri + Protected);
        QCOMPARE(postRemotely(second, signedBy("first-secret", second)).status, 200);
        QCOMPARE(getRemotely(Protected, Signer("admin", "second-secret").forGet(uri + Protected)), 200);
        QCOMPARE(getRemotely(Protected, old), 401);

        // It is on the disk once it is answered, and in no log.
        const QByteArray third = change("admin", "second-secret", "third-secret");
        QCOMPARE(postRemotely(third, signedBy("second-secret", third)).status, 200);
        m_device->stop(SIGKILL);
        QVERIFY(m_device->start());
        QCOMPARE(getRemotely(Protected, Signer("admin", "third-secret").forGet(uri + Protected)), 200);
        QCOMPARE(permission(), QByteArray("\"protected\""));
        QVERIFY2(!m_device->log().contains("-secret"), "A password is in the log");
    }

    void usersAndKeysAreNeverReadable_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::newRow("users") << QByteArray("settings:webserver/users");
        QTest::newRow("private key") << QByteArray("settings:webserver/httpsPrivateKey");
    }

    void usersAndKeysAreNeverReadable()
    {
        QFETCH(QByteArray, path);
        const HttpReply reply = getReply("/api/getData?roles=value&path=" + path);
        QCOMPARE(reply.status, 404);
        QCOMPARE(reply.errorMessage(), QByteArray("Node is internal"));
        const QByteArray rows = getReply("/api/getRows?path=settings:webserver&roles=path,value&from=0&to=99").body;
        QVERIFY2(rows.contains(Node), rows.constData());
        QVERIFY2(!rows.contains("BEGIN") && !rows.contains("admin"), rows.constData());
    }

private:
    QByteArray permission() const
    {
        return m_device->get("/api/getData?path=" + Node + "&roles=permission").body.mid(1).chopped(1);
    }

    HttpReply postRemotely(const QByteArray& body, const QByteArray& authorization = {}) const
    {
        HttpConnection connection(m_device->port(), RemoteAddress);
        const QByteArray host = "Host: 192.0.2.1:" + QByteArray::number(m_device->port());
        QList<QByteArray> fields{ host, "Content-Type: application/json" };
        if (!authorization.isEmpty())
            fields << authorization;
        connection.send(httpRequest("POST", "/api/setData", fields, body));
        return connection.readReply();
    }

    HttpReply getReply(const QByteArray& target, const QByteArray& authorization = "X-None: 1") const
    {
        HttpConnection connection(m_device->port(), RemoteAddress);
        const QByteArray host = "Host: 192.0.2.1:" + QByteArray::number(m_device->port());
        connection.send(httpRequest("GET", target, { host, authorization }));
        return connection.readReply();
    }

    int getRemotely(const QByteArray& target, const QByteArray& authorization) const
    {
        return getReply(target, authorization).status;
    }

    std::unique_ptr<Device> m_device;
};

int main(int argc, char** argv)
{
    if (!enterNetworkNamespace())
        return 1;
    QCoreApplication application(argc, argv);
    PasswordTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "PasswordTest.moc"
