#include <QAbstractEventDispatcher>
#include <QCoreApplication>

#include <cstdio>

#include <sys/resource.h>

#include "Host.h"
#include "HostOptions.h"
#include "ServiceNotifier.h"
#include "SignalWatch.h"

namespace {

int fault(const QString& text)
{
    fprintf(stderr, "zark-host: %s\n", qUtf8Printable(text.simplified()));
    return Host::Fault;
}

/// Modules live on GLib's main context; Qt's own event loop would never turn it.
bool isGlibEventLoop()
{
    return QCoreApplication::eventDispatcher()->inherits("QEventDispatcherGlib");
}

/// Every client costs descriptors; the soft limit is there for programs that use select().
void raiseFileLimit()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral(ZARK_VERSION));
    HostOptions options;
    QString text;
    switch (HostOptions::parse(QCoreApplication::arguments(), &options, &text)) {
    case HostOptions::Outcome::Text:
        fputs(qUtf8Printable(text), stdout);
        return Host::Success;
    case HostOptions::Outcome::Fault:
        return fault(text);
    case HostOptions::Outcome::Run:
        break;
    }
    if (!isGlibEventLoop())
        return fault(QStringLiteral("the event loop does not run GLib (is QT_NO_GLIB set?)"));
    raiseFileLimit();

    SignalWatch signalWatch;
    ServiceNotifier notifier;
    Host host(options, &signalWatch, &notifier);
    if (!host.start(&text))
        return fault(text);
    return host.run();
}
