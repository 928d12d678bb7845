#include <QDateTime>
#include <QSaveFile>
#include <QSslCertificate>
#include <QSslCertificateExtension>

#include "Commands.h"
#include "Password.h"
#include "Profile.h"
#include "Session.h"

namespace {

QString fingerprintOf(const QSslCertificate& certificate)
{
    return QString::fromLatin1(certificate.digest(QCryptographicHash::Sha256).toHex(':').toUpper());
}

QString nameOf(const QSslCertificate& certificate, bool issuer)
{
    return issuer ? certificate.issuerDisplayName() : certificate.subjectDisplayName();
}

QList<QSslCertificate> shownBy(Session& session)
{
    QList<QSslCertificate> chain;
    for (const QByteArray& pem : session.api->http().certificates(session.api->url(QString())))
        chain += QSslCertificate::fromData(pem);
    if (chain.isEmpty())
        throw Failure{ ExitFailed, QStringLiteral("the device shows no certificate") };
    return chain;
}

ExitStatus show(Session& session)
{
    for (const QSslCertificate& certificate : shownBy(session)) {
        const QStringList names = certificate.subjectAlternativeNames().values();
        const Record record{ { QStringLiteral("subject"), nameOf(certificate, false) },
            { QStringLiteral("issuer"), nameOf(certificate, true) },
            { QStringLiteral("names"), names.join(QStringLiteral(", ")) },
            { QStringLiteral("from"), certificate.effectiveDate().toString(Qt::ISODate) },
            { QStringLiteral("until"), certificate.expiryDate().toString(Qt::ISODate) },
            { QStringLiteral("sha256"), fingerprintOf(certificate) } };
        session.report.records.append(record);
        for (const auto& field : record)
            session.report.lines.append(field.first.leftJustified(8).toUtf8() + ' ' + field.second.toString().toUtf8());
        session.report.lines.append(QByteArray());
    }
    session.report.lines.removeLast();
    return ExitOk;
}

/// The authority, where the device shows it: it stays when the device renews its own certificate. One that --ca names
/// is not asked about: the handshake has judged it.
QSslCertificate anchorOf(Session& session, const QList<QSslCertificate>& chain)
{
    if (session.invocation.has("ca")) {
        session.api->http().get(session.api->url(QStringLiteral("/")), {});
        const auto authorities = QSslCertificate::fromPath(session.target().caFile);
        return authorities.isEmpty() ? chain.first() : authorities.first();
    }
    return chain.last().isSelfSigned() ? chain.last() : chain.first();
}

ExitStatus trust(Session& session)
{
    const QList<QSslCertificate> chain = shownBy(session);
    const QSslCertificate anchor = anchorOf(session, chain);
    const QString fingerprint = fingerprintOf(anchor);
    const QString expected = session.invocation.value("fingerprint").remove(QLatin1Char(':')).toUpper();
    if (!expected.isEmpty() && expected != QString(fingerprint).remove(QLatin1Char(':')))
        throw Failure{
            ExitRefused,
            QStringLiteral("the device shows %1, with another fingerprint: %2").arg(nameOf(anchor, false), fingerprint)
        };
    const QString question = QStringLiteral("%1 shows the certificate of %2, SHA-256 %3.\nTrust it?")
                                 .arg(session.target().name(), nameOf(anchor, false), fingerprint);
    if (expected.isEmpty() && !session.invocation.has("ca")
        && !isConfirmed(question, QStringLiteral("--fingerprint SHA256 answers")))
        throw Failure{ ExitRefused, QStringLiteral("not trusted") };
    profileDirectory();
    QSaveFile file(trustedFile(session.target().url));
    if (!file.open(QIODevice::WriteOnly) || file.write(anchor.toPem()) < 0 || !file.commit())
        throw Failure{ ExitFailed, file.fileName() + QStringLiteral(": ") + file.errorString() };
    if (!anchor.isSelfSigned())
        session.note(QStringLiteral("the device does not show its authority: this trust ends with its certificate"));
    session.report.records.append({ { QStringLiteral("trusted"), nameOf(anchor, false) },
        { QStringLiteral("sha256"), fingerprint }, { QStringLiteral("file"), file.fileName() } });
    session.report.lines.append("trusted: " + file.fileName().toUtf8());
    return ExitOk;
}

ExitStatus verify(Session& session)
{
    session.api->http().get(session.api->url(QStringLiteral("/")), {});
    const QList<QSslCertificate> chain = shownBy(session);
    const QString name = nameOf(chain.first(), false);
    const QString until = chain.first().expiryDate().toString(Qt::ISODate);
    session.report.records.append({ { QStringLiteral("trusted"), name }, { QStringLiteral("until"), until } });
    session.report.lines.append(QStringLiteral("trusted: %1, until %2").arg(name, until).toUtf8());
    return ExitOk;
}

} // namespace

ExitStatus runCert(Session& session)
{
    if (session.target().url.scheme() != QLatin1String("https"))
        throw Failure{ ExitUsage, QStringLiteral("cert needs an https:// URL") };
    const QString what = session.arguments().first();
    if (what == QLatin1String("show"))
        return show(session);
    if (what == QLatin1String("trust"))
        return trust(session);
    return verify(session);
}
