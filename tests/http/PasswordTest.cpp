#include <QtTest>

#include <csignal>
#include <memory>

#include "Device.h"
#include "Namespace.h"
#include "Rows.h"

namespace {

const QByteArray Node = "settings:webserver/changePassword";
const QByteArray Protected = "/api/getData?path=demo:permissions/protected&roles=value";

QByteArray change(const QByteArray& name, const QByteArray& old, const QByteArray& fresh)
{
    const QByteArray fields =
        R"({"name":")" + name + R"(","oldPassword":")" + old + R"(","newPassword":")" + fresh + "\"}";
    return Device::setBody(Node, R"({"type":"webserverChangePassword","value":)" + fields + '}', "activate");
}

} // namespace

/// The password as an owner sets it, from a browser that is not on the device.
class PasswordTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { m_device = std::make_unique<Device>(QStringList(), QStringList{ "--log-level", "trace" }); }

    void attempts()
    {
        Rows<QByteArray, QByteArray> row;
        row("six characters", change("admin", "", "secret"), {});
        row("six characters in more bytes", change("admin", "", "äöüßéè"), {});
        row("five characters", change("admin", "", "secre"), "New password too short");
        row("five characters in ten bytes", change("admin", "", "äöüßé"), "New password too short");
        row("unknown user", change("nobody", "", "secret"), "Invalid username/password");
        row("unknown user, too short", change("nobody", "", "x"), "Invalid username/password");
        row("another letter case", change("Admin", "", "secret"), "Invalid username/password");
        row("no user", change("", "", "secret"), "Invalid username/password");
        row("wrong old password", change("admin", "wrong!", "secret"), "Error changing password");
        row("wrong old, too short", change("admin", "wrong!", "x"), "New password too short");
        for (const auto& [body, error] : row) {
            init();
            QCOMPARE(permission(), QByteArray("\"open\""));
            const HttpReply reply = m_device->ask({ RemoteAddress, {} }, "/api/setData", body);
            QCOMPARE(reply.status, error.isEmpty() ? 200 : 500);
            QCOMPARE(reply.errorMessage(), error);
            QCOMPARE(permission(), error.isEmpty() ? QByteArray("\"protected\"") : QByteArray("\"open\""));
        }
    }

    void aChangedPasswordEndsTheOldSignatures()
    {
        const auto post = [this](const QByteArray& body, const QByteArray& password = {}) {
            return m_device->ask({ RemoteAddress, password }, "/api/setData", body);
        };
        const auto isVerified = [this](const QByteArray& password) {
            return m_device->ask({ RemoteAddress, password }, Protected).status == 200;
        };
        QCOMPARE(post(change("admin", "", "first-secret")).status, 200);
        QVERIFY(isVerified("first-secret"));

        // Nobody changes it any more without a signature, and a signature by itself is not the old password.
        const QByteArray second = change("admin", "first-secret", "second-secret");
        QCOMPARE(post(second).status, 401);
        QCOMPARE(post(change("admin", "", "third-secret"), "first-secret").errorMessage(),
            QByteArray("Error changing password"));
        QCOMPARE(post(second, "first-secret").status, 200);
        QVERIFY(isVerified("second-secret"));
        QVERIFY(!isVerified("first-secret"));

        // It is on the disk once it is answered, and in no log.
        QCOMPARE(post(change("admin", "second-secret", "third-secret"), "second-secret").status, 200);
        m_device->stop(SIGKILL);
        QVERIFY(m_device->start());
        QVERIFY(isVerified("third-secret"));
        QCOMPARE(permission(), QByteArray("\"protected\""));
        QVERIFY2(!m_device->log().contains("-secret"), "A password is in the log");
    }

    void usersAndKeysAreNeverReadable()
    {
        const Client remote{ RemoteAddress, {} };
        for (const char* path : { "settings:webserver/users", "settings:webserver/httpsPrivateKey" }) {
            const HttpReply reply = m_device->ask(remote, QByteArray("/api/getData?roles=value&path=") + path);
            QCOMPARE(reply.status, 404);
            QCOMPARE(reply.errorMessage(), QByteArray("Node is internal"));
        }
    }

private:
    QByteArray permission() const
    {
        return m_device->get("/api/getData?path=" + Node + "&roles=permission").body.mid(1).chopped(1);
    }

    std::unique_ptr<Device> m_device;
};

NAMESPACE_TEST_MAIN(PasswordTest)

#include "PasswordTest.moc"
