#pragma once

#include <QTest>

#include "CMReply.h"

/// What a reply said, once it was waited for.
template <class T> struct Answer {
    T value{};
    CMError error;
    bool came = false;

    QString errorName() const { return came ? error.name() : QStringLiteral("no answer"); }

    static Answer of(CMReply<T> reply)
    {
        Answer answer;
        QObject receiver;
        reply.onFinished(&receiver, [&answer](const T& value, const CMError& error) {
            answer = Answer{ value, error, true };
        });
        reply = {}; // So that a request that nobody keeps is seen as abandoned.
        (void)QTest::qWaitFor([&answer] { return answer.came; });
        return answer;
    }
};

/// The name of the error, "" for success.
inline QString errorOf(CMVoidReply reply)
{
    QString name = QStringLiteral("no answer");
    bool came = false;
    QObject receiver;
    reply.onFinished(&receiver, [&](const CMError& error) {
        name = error.name();
        came = true;
    });
    (void)QTest::qWaitFor([&came] { return came; });
    return name;
}
