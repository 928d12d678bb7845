#pragma once

#include <QByteArray>

/// Moves this process, and every device that it starts, to a network namespace of its own, with loopback up and an
/// interface that has the address RemoteAddress (RFC 5737). A client that connects to that address is not local to the
/// server. Call it at the start of main(), before any thread; works without being root. False with the reason on
/// standard error: the test must then fail, not skip.
bool enterNetworkNamespace();

constexpr const char* RemoteAddress = "192.0.2.1";

/// As QTEST_GUILESS_MAIN, in such a namespace.
#define NAMESPACE_TEST_MAIN(Test)                                                                                      \
    int main(int argc, char** argv)                                                                                    \
    {                                                                                                                  \
        if (!enterNetworkNamespace())                                                                                  \
            return 1;                                                                                                  \
        QCoreApplication application(argc, argv);                                                                      \
        Test test;                                                                                                     \
        return QTest::qExec(&test, argc, argv);                                                                        \
    }
