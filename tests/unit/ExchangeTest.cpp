#include <QTcpSocket>
#include <QtTest>

#include "CMNodes.h"
#include "CMRoot.h"
#include "CMStore.h"
#include "CMValueNode.h"
#include "Request.h"
#include "ResponderFactory.h"
#include "ResponderHandler.h"
#include "Server.h"
#include "ServerLimits.h"
#include "SignedResponder.h"
#include "UserDatabase.h"
#include "ZarkPaths.h"

namespace {

class ScriptedResponder;

/// What a test does in the place of a responder.
struct Script {
    std::function<void(ScriptedResponder&)> respond;
    QByteArrayList ends; ///< What was deleted, in order.
};

class ScriptedResponder : public SignedResponder {
public:
    ScriptedResponder(Request& request, const QString& documentRoot, Script* script, QObject* parent)
        : SignedResponder(request, documentRoot, {}, QSharedPointer<ResponderConfiguration>::create(), parent),
          m_script(script)
    {
    }
    ~ScriptedResponder() override { m_script->ends.append(request().metaObject()->className()); }

    using SignedResponder::answer;
    using SignedResponder::takeParameters;
    void respond() override
    {
        const auto note = [script = m_script](QObject* object, const char* name) {
            QObject::connect(object, &QObject::destroyed, [script, name] { script->ends.append(name); });
        };
        note(&request(), "request");
        note(inputDevice(), "input");
        note(outputDevice(), "output");
        m_script->respond(*this);
    }

private:
    Script* m_script;
};

} // namespace

/// The life of one exchange behind a real server, and what responders share.
class ExchangeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // The library's complaints about a message whose exchange is over.
        g_log_set_always_fatal(GLogLevelFlags(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
        m_factory.reset(makeDefaultResponderFactory<ScriptedResponder>(&m_script));
        m_server = std::make_unique<Server>(0, QString(), QString(), false, ServerLimits(), nullptr);
        m_server->addHandler("/", new ResponderHandler(m_factory.get(), QString(), nullptr));
        m_server->start();
    }

    void whatTheLibraryWouldRefuseIsRefused()
    {
        QByteArray queried;
        m_script.respond = [&queried](ScriptedResponder& responder) {
            Request& request = responder.request();
            queried = static_cast<const char*>(g_hash_table_lookup(request.data().query, "a"));
            QVERIFY(request.setHeader(QByteArray("X-Good"), "1"));
            for (const char* name : { "", "X Bad", "X-Bad:", "X-\r\nBad",
                     "X-B\xC3\xA4"
                     "d" })
                QVERIFY2(!request.setHeader(QByteArray(name), "1"), name);
            request.setStatus(201, "Made\r\nX-Bad: 1");
            Q_EMIT responder.finished(request.requestId());
        };
        const QByteArray answer = get("/?a=b");
        QVERIFY2(answer.startsWith("HTTP/1.1 201 Created\r\n"), answer);
        QVERIFY2(answer.contains("X-Good: 1\r\n") && !answer.contains("Bad"), answer);
        QCOMPARE(queried, QByteArray("b"));
    }

    void theBodyIsGivenBackOnceItIsReadAndBeforeAnAnswerIsHeld()
    {
        int number = 0;
        m_script.respond = [&number](ScriptedResponder& responder) {
            RequestParameters parameters;
            QVERIFY(responder.takeParameters(&parameters));
            QVERIFY(parameters.readInteger("number", &number));
            QVERIFY(responder.request().requestBody().isEmpty());
            QVERIFY(!responder.request().postData().isValid());
            Q_EMIT responder.finished(responder.request().requestId());
        };
        get("/", "{\"number\":4.0}");
        QCOMPARE(number, 4);
        m_script.respond = [](ScriptedResponder& responder) {
            responder.answer(401, "Forbidden", "text/plain", true);
            QVERIFY(responder.request().requestBody().isEmpty());
        };
        QVERIFY(get("/", "{}").endsWith("Forbidden"));
    }

    void theResponderDiesFirstAndNothingIsWrittenAtTheEnd()
    {
        QList<int> statuses;
        m_script.respond = [&statuses](ScriptedResponder& responder) {
            Request& request = responder.request();
            connect(&request, &Message::finished, &responder, [&request, &statuses] {
                statuses.append(request.status());
                request.setStatus(500, QString());
                request.setResponseBody(QByteArray("late"), "text/plain");
                request.responseBodyComplete();
                request.pause();
                statuses.append(request.status());
            });
            request.setStatus(200, QString());
        };
        m_script.ends.clear();
        QTcpSocket client;
        ask(&client, "/");
        QTest::qWait(100);
        client.abort();
        QTRY_COMPARE(m_script.ends, QByteArrayList({ "Request", "output", "input", "request" }));
        QCOMPARE(statuses, QList<int>({ SOUP_STATUS_IO_ERROR, SOUP_STATUS_IO_ERROR }));
    }

    void theTimerOfAHeldAnswerIsBoundedAndGoesWithItsClient()
    {
        ResponderConfiguration configuration;
        QPointer<Responder> held;
        m_script.respond = [&](ScriptedResponder& responder) {
            held = &responder;
            configuration.authFailBlock(&responder, 0); // At once, and of no exchange.
            configuration.authFailBlock(&responder, responder.request().requestId());
        };
        const auto timers = [] {
            return QAbstractEventDispatcher::instance()->findChildren<QObject*>().size();
        };
        const int before = timers();
        QTcpSocket client;
        ask(&client, "/");
        QTRY_VERIFY(held);
        // Behind more failures than the milliseconds of an int hold, 10 s each.
        for (int i = 0; i < 220000; ++i) {
            qDeleteAll(held->findChildren<QTimer*>());
            configuration.authFailBlock(held, held->request().requestId());
        }
        QCOMPARE(held->findChild<QTimer*>()->interval(), std::numeric_limits<int>::max());
        client.abort();
        QTRY_VERIFY(!held);
        QCOMPARE(timers(), before);
    }

    // Each write is a commit of its own, so that the first is told while the second is under way.
    void ownWritesAreAheadOfTheModel()
    {
        const QTemporaryDir directory;
        CMStore store;
        QString error;
        QVERIFY(store.open(directory.filePath("state.db"), &error));
        CMRootWorker root(&store);
        CMNodes nodes(root.tree());
        const QVariantList users{ ZarkWebserverUser("x", "").toVariant(), ZarkWebserverUser("y", "").toVariant() };
        ZarkValue value;
        value.setWebserverUsers(users);
        CMValueNode::create(&nodes, ZarkWebserverUsersPath(), value, CMValueNode::Persistent);
        UserDatabase database;
        const auto stored = [] {
            return ZarkWebserverUser(ZarkValue(CMRoot()->getValue(ZarkWebserverUsersPath())).webserverUsers().first());
        };

        QVERIFY(database.changePassword("x", "", "first"));
        QThread::msleep(50);
        QVERIFY(!database.changePassword("x", "", "guessed"));
        CMVoidReply reply;
        QVERIFY(database.changePassword("x", "first", "second", reply));
        bool answered = false;
        reply.onFinished(this, [&](const CMError& failure) {
            answered = failure.isEmpty() && stored().password() == QLatin1String("second");
        });
        while (stored().password() != QLatin1String("second")) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            QCOMPARE(database.user("x").password(), QString("second"));
        }
        QTRY_VERIFY(answered);
    }

    void aListenerIsNotTakenForDeadWhileTheLoopIsBusy()
    {
        const auto port = quint16(m_server->listeningPort());
        QTcpSocket first;
        first.connectToHost(QHostAddress::LocalHost, port);
        QTcpSocket late;
        QTimer busy; // In each turn of the loop, before the server's own timer.
        int turn = -10;
        connect(&busy, &QTimer::timeout, this, [&] {
            if (++turn == 2)
                late.connectToHost(QHostAddress::LocalHost, port);
            if (turn == 2)
                QVERIFY(late.waitForConnected());
            if (turn == 1 || turn == 2)
                QThread::msleep(600);
        });
        busy.start(0);
        const auto listeners = [this] {
            g_autoptr(GSList) list = soup_server_get_listeners(m_server->soupServer());
            return g_slist_length(list);
        };
        const uint before = listeners();
        QTRY_VERIFY(turn > 10);
        QCOMPARE(listeners(), before);
    }

private:
    void ask(QTcpSocket* client, const QByteArray& target, const QByteArray& json = {}) const
    {
        client->connectToHost(QHostAddress::LocalHost, quint16(m_server->listeningPort()));
        client->write((json.isEmpty() ? "GET " : "POST ") + target
            + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Type: application/json\r\nContent-Length: "
            + QByteArray::number(json.size()) + "\r\n\r\n" + json);
    }

    QByteArray get(const QByteArray& target, const QByteArray& json = {}) const
    {
        QTcpSocket client;
        ask(&client, target, json);
        const bool closed = QTest::qWaitFor([&client] { return client.state() == QAbstractSocket::UnconnectedState; });
        return closed ? client.readAll() : QByteArray();
    }

    Script m_script;
    std::unique_ptr<ResponderFactory> m_factory;
    std::unique_ptr<Server> m_server;
};

QTEST_GUILESS_MAIN(ExchangeTest)
#include "ExchangeTest.moc"
