#include <QtTest>

#include <thread>

#include "CMReply.h"

class CMReplyTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void isDeliveredOnceFromTheEventLoop()
    {
        for (const int variant : { 0, 1, 2, 3 }) {
            const bool finishFirst = variant & 1;
            const bool fails = variant & 2;
            QStringList log;
            QObject receiver;
            CMReply<int> reply;
            const auto finish = [&] {
                CMReply<int> copy = reply;
                if (fails)
                    copy.fail(CMError(CMError::Failed, "first"));
                copy.finish(7);
                copy.finish(8);
                copy.fail(CMError(CMError::Failed, "late"));
            };
            if (finishFirst)
                finish();
            reply.onFinished(&receiver, [&log](int value, const CMError& error) {
                log.append(QString::number(value) + error.message().source());
            });
            if (!finishFirst)
                finish();
            QVERIFY(log.isEmpty());
            QCoreApplication::processEvents();
            QCOMPARE(log, QStringList(fails ? "0first" : "7"));
        }
    }

    void isDroppedWithItsReceiver()
    {
        int calls = 0;
        for (const bool finishBefore : { false, true }) {
            CMReply<int> reply;
            auto receiver = std::make_unique<QObject>();
            reply.onFinished(receiver.get(), [&calls](int, const CMError&) { ++calls; });
            if (finishBefore)
                reply.finish(1);
            receiver.reset();
            reply.finish(1);
            QCoreApplication::processEvents();
        }
        QCOMPARE(calls, 0);
    }

    void undeliveredAnswersEndWithTheirThread()
    {
        int calls = 0;
        std::thread thread([this, &calls] {
            CMReply<int> outer;
            CMReply<int> inner; // Lives in the callback of the other one, and is abandoned with it.
            inner.onFinished(this, [&calls](int, const CMError&) { ++calls; });
            outer.onFinished(this, [inner](int, const CMError&) mutable { inner.finish(1); });
            outer.finish(1);
        });
        thread.join();
        QCoreApplication::processEvents();
        QCOMPARE(calls, 0);
    }
};

QTEST_GUILESS_MAIN(CMReplyTest)
#include "CMReplyTest.moc"
